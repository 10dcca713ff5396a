// Placeholder until the widget lands.
#include "Skeldrin/ui/WidgetPanel.h"

namespace skeldrin {

WidgetPanel::WidgetPanel(SessionsModel&, Updates&, AppSettings&, Callbacks, QObject* parent)
    : QObject(parent)
{
}

WidgetPanel::~WidgetPanel() = default;

void WidgetPanel::refreshVisibility() {}
bool WidgetPanel::isShown() const
{
    return false;
}
void WidgetPanel::setCardMenuExtension(std::function<void(QMenu&)>) {}

} // namespace skeldrin
