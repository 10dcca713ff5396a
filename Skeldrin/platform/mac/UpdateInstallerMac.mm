// macOS: the disk image is opened through the workspace, the user drags the new copy into Applications, and
// the copy there is relaunched as a new instance once its Info.plist names the new version.
#include "Skeldrin/platform/UpdateInstaller.h"

#include <QDir>
#include <QPointer>
#include <QTimer>

#import <AppKit/AppKit.h>
#import <Foundation/Foundation.h>

namespace skeldrin::platform {

std::optional<QUrl> updatePackage(const UpdateManifest& manifest)
{
    return manifest.url;
}

QString updateFileName(const QUrl&)
{
    return QStringLiteral("Skeldrin.dmg");
}

QString updateDownloadFolder()
{
    // NSTemporaryDirectory() is the per-user scratch folder under /var/folders.
    @autoreleasepool {
        return QDir(QString::fromNSString(NSTemporaryDirectory())).filePath(QStringLiteral("Skeldrin"));
    }
}

QString installedCopy()
{
    return QStringLiteral("/Applications/Skeldrin.app");
}

bool openWithSystem(const QUrl& fileOrPage, QString* error)
{
    @autoreleasepool {
        NSURL* url = fileOrPage.toNSURL();
        if (url && [[NSWorkspace sharedWorkspace] openURL:url]) return true;
        if (error) *error = QStringLiteral("no application opens %1").arg(fileOrPage.toDisplayString());
        return false;
    }
}

void readInstalledVersion(const QString& installedCopy, QObject* context,
                          std::function<void(std::optional<QString>)> done)
{
    std::optional<QString> version;
    @autoreleasepool {
        NSString* plist = QDir(installedCopy).filePath(QStringLiteral("Contents/Info.plist")).toNSString();
        NSDictionary* info = [NSDictionary dictionaryWithContentsOfFile:plist];
        id value = info[@"CFBundleShortVersionString"];
        if ([value isKindOfClass:[NSString class]]) version = QString::fromNSString(value);
    }
    // Answered from the event loop, as on every platform.
    QTimer::singleShot(0, context, [done = std::move(done), version] { done(version); });
}

void launchInstalledCopy(const QString& installedCopy, QObject* context,
                         std::function<void(std::optional<QString>)> done)
{
    @autoreleasepool {
        NSURL* app = [NSURL fileURLWithPath:installedCopy.toNSString() isDirectory:YES];
        NSWorkspaceOpenConfiguration* configuration = [NSWorkspaceOpenConfiguration configuration];
        configuration.createsNewApplicationInstance = YES;
        QPointer<QObject> guard(context);
        // The completion handler runs on a background queue; the answer is delivered on the main thread.
        [[NSWorkspace sharedWorkspace] openApplicationAtURL:app
                                              configuration:configuration
                                          completionHandler:^(NSRunningApplication*, NSError* error) {
                                            std::optional<QString> failure;
                                            if (error)
                                                failure = QString::fromNSString(error.localizedDescription);
                                            dispatch_async(dispatch_get_main_queue(), ^{
                                              if (guard) done(failure);
                                            });
                                          }];
    }
}

} // namespace skeldrin::platform
