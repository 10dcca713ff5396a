#include "Skeldrin/platform/AppPlatform.h"

#import <AppKit/AppKit.h>

namespace skeldrin::platform {

void becomeAccessoryApp()
{
    [NSApplication.sharedApplication setActivationPolicy:NSApplicationActivationPolicyAccessory];
}

void activateApp() { [NSApplication.sharedApplication activateIgnoringOtherApps:YES]; }

} // namespace skeldrin::platform
