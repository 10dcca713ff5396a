#include "Skeldrin/platform/FloatingWindow.h"

#include <QWidget>

#import <AppKit/AppKit.h>

namespace skeldrin {

void makeFloating(QWidget& window)
{
    NSView* view = (__bridge NSView*)reinterpret_cast<void*>(window.winId());
    NSWindow* panel = view.window;
    if (!panel) return;
    panel.level = NSFloatingWindowLevel;
    panel.collectionBehavior = NSWindowCollectionBehaviorCanJoinAllSpaces | NSWindowCollectionBehaviorStationary
                               | NSWindowCollectionBehaviorIgnoresCycle
                               | NSWindowCollectionBehaviorFullScreenAuxiliary;
    panel.hidesOnDeactivate = NO;
    panel.hasShadow = YES;
    panel.opaque = NO;
    panel.appearance = [NSAppearance appearanceNamed:NSAppearanceNameDarkAqua];
    if ([panel isKindOfClass:[NSPanel class]])
        panel.styleMask = panel.styleMask | NSWindowStyleMaskNonactivatingPanel;
}

} // namespace skeldrin
