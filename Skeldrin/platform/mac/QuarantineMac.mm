#include "Skeldrin/platform/Quarantine.h"

#include <QLoggingCategory>

#include <cerrno>
#include <cstring>
#include <sys/xattr.h>

#import <Foundation/Foundation.h>

namespace skeldrin::Quarantine {

namespace {
Q_LOGGING_CATEGORY(lcUpdates, "app.skeldrin.updates")
} // namespace

void clear(const QString& folder)
{
    @autoreleasepool {
        NSURL* root = [NSURL fileURLWithPath:folder.toNSString() isDirectory:YES];
        // An unreadable folder is skipped; the walk goes on.
        NSDirectoryEnumerator<NSURL*>* items =
            [[NSFileManager defaultManager] enumeratorAtURL:root
                                 includingPropertiesForKeys:nil
                                                    options:0
                                               errorHandler:^BOOL(NSURL*, NSError*) {
                                                 return YES;
                                               }];
        for (NSURL* item in items) {
            const char* path = item.fileSystemRepresentation;
            if (removexattr(path, "com.apple.quarantine", XATTR_NOFOLLOW) == 0) continue;
            const int error = errno;
            if (error == ENOATTR) continue; // never carried the flag
            qCWarning(lcUpdates, "couldn't clear the quarantine flag from %s: %s", path,
                      std::strerror(error));
        }
    }
}

} // namespace skeldrin::Quarantine
