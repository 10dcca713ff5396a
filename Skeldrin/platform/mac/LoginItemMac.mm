#include "Skeldrin/platform/LoginItem.h"

#import <Foundation/Foundation.h>
#import <ServiceManagement/ServiceManagement.h>

#include <stdexcept>

namespace skeldrin::LoginItem {

bool isEnabled()
{
    @autoreleasepool {
        return SMAppService.mainAppService.status == SMAppServiceStatusEnabled;
    }
}

void setEnabled(bool enabled)
{
    @autoreleasepool {
        NSError* error = nil;
        const BOOL done = enabled ? [SMAppService.mainAppService registerAndReturnError:&error]
                                  : [SMAppService.mainAppService unregisterAndReturnError:&error];
        if (!done) {
            NSString* text = error.localizedDescription ?: @"The login item couldn't be changed.";
            throw std::runtime_error(text.UTF8String);
        }
    }
}

} // namespace skeldrin::LoginItem
