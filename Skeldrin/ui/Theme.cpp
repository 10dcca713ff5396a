#include "Skeldrin/ui/Theme.h"

#include <QStyle>
#include <QStyleFactory>
#include <QWidget>

namespace skeldrin::Theme {

QPalette dark()
{
    QPalette p;
    const QColor window(0x24, 0x24, 0x26), base(0x1C, 0x1C, 0x1E), text(0xF2, 0xF2, 0xF7);
    p.setColor(QPalette::Window, window);
    p.setColor(QPalette::WindowText, text);
    p.setColor(QPalette::Base, base);
    p.setColor(QPalette::AlternateBase, window);
    p.setColor(QPalette::Text, text);
    p.setColor(QPalette::Button, QColor(0x3A, 0x3A, 0x3C));
    p.setColor(QPalette::ButtonText, text);
    p.setColor(QPalette::Highlight, QColor(0x0A, 0x84, 0xFF));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::ToolTipBase, base);
    p.setColor(QPalette::ToolTipText, text);
    p.setColor(QPalette::Disabled, QPalette::Text, QColor(0x8E, 0x8E, 0x93));
    p.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x8E, 0x8E, 0x93));
    p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x8E, 0x8E, 0x93));
    return p;
}

void makeDark(QWidget& widget)
{
    // One style object for the life of the app, shared by every dark window and menu.
    static QStyle* const fusion = QStyleFactory::create(QStringLiteral("Fusion"));
    if (fusion) widget.setStyle(fusion);
    widget.setPalette(dark());
}

} // namespace skeldrin::Theme
