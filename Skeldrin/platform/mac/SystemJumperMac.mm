// macOS: Terminal and iTerm2 through AppleScript, editors and apps through the workspace.
#include "Skeldrin/platform/JumpScripts.h"
#include "Skeldrin/platform/SystemJumper.h"
#include "TrackerCore/JumpTarget.h"

#include <QLoggingCategory>
#include <QString>

#import <AppKit/AppKit.h>
#import <Foundation/Foundation.h>

#include <functional>

Q_LOGGING_CATEGORY(lcJumpMac, "app.skeldrin.jump")

namespace skeldrin {
namespace {

// Never nil: bad UTF-8 from a session file is replaced rather than dropped.
NSString* ns(const std::string& text)
{
    return QString::fromStdString(text).toNSString();
}

bool runScript(const std::string& source)
{
    NSAppleScript* script = [[NSAppleScript alloc] initWithSource:ns(source)];
    if (!script) throw JumpError::script("AppleScript could not be created", 0);
    NSDictionary* info = nil;
    NSAppleEventDescriptor* result = [script executeAndReturnError:&info];
    if (!result) {
        NSString* message = info[NSAppleScriptErrorMessage];
        NSNumber* number = info[NSAppleScriptErrorNumber];
        throw JumpError::script(message ? std::string(message.UTF8String) : std::string("AppleScript failed"),
                                number ? number.longValue : 0);
    }
    return result.booleanValue;
}

NSURL* appURL(const std::string& bundleId)
{
    NSURL* url = [[NSWorkspace sharedWorkspace] URLForApplicationWithBundleIdentifier:ns(bundleId)];
    if (!url) throw JumpError::appNotFound(bundleId);
    return url;
}

void open(NSArray<NSURL*>* urls, NSURL* app, std::function<void()> then)
{
    NSWorkspaceOpenConfiguration* configuration = [NSWorkspaceOpenConfiguration configuration];
    configuration.activates = YES;
    NSString* opened = app.path;
    [[NSWorkspace sharedWorkspace] openURLs:urls
                       withApplicationAtURL:app
                              configuration:configuration
                          completionHandler:^(NSRunningApplication*, NSError* error) {
                            if (error) {
                                qCCritical(lcJumpMac, "opening %s failed: %s", opened.UTF8String,
                                           error.localizedDescription.UTF8String);
                                if (then) endDeferredJump(); // the follow-up will not come
                                return;
                            }
                            if (then)
                                dispatch_async(dispatch_get_main_queue(), ^{
                                  then();
                                });
                          }];
}

void activate(const std::string& bundleId)
{
    NSURL* app = appURL(bundleId);
    NSWorkspaceOpenConfiguration* configuration = [NSWorkspaceOpenConfiguration configuration];
    configuration.activates = YES;
    [[NSWorkspace sharedWorkspace]
        openApplicationAtURL:app
               configuration:configuration
           completionHandler:^(NSRunningApplication*, NSError* error) {
             if (error)
                 qCWarning(lcJumpMac, "activating %s failed: %s", app.path.UTF8String,
                           error.localizedDescription.UTF8String);
           }];
}

void openURL(const std::string& url)
{
    // The URL was checked when the target was resolved.
    if (NSURL* link = [NSURL URLWithString:ns(url)]) [[NSWorkspace sharedWorkspace] openURL:link];
}

class MacJumper final : public ImmediateJumper {
  public:
    void jump(const Session& session) override
    {
        @autoreleasepool {
            const std::optional<JumpTarget> target = JumpTarget::resolve(session);
            if (!target) throw JumpError::unknownOrigin();
            switch (target->kind) {
            case JumpTarget::Kind::claudeDesktop:
                openURL(target->url);
                return;
            case JumpTarget::Kind::editorSession: {
                const std::string url = target->url;
                NSURL* editor = appURL(target->bundleId);
                beginDeferredJump();
                open(@[ [NSURL fileURLWithPath:ns(target->folder)] ], editor, [url] {
                    // The editor needs a moment to show the folder before it can take the link.
                    dispatch_after(dispatch_time(DISPATCH_TIME_NOW, static_cast<int64_t>(0.6 * NSEC_PER_SEC)),
                                   dispatch_get_main_queue(), ^{
                                     openURL(url);
                                     endDeferredJump();
                                   });
                });
                return;
            }
            case JumpTarget::Kind::editorWindow:
                open(@[ [NSURL fileURLWithPath:ns(target->folder)] ], appURL(target->bundleId), nullptr);
                return;
            case JumpTarget::Kind::terminalTab:
                if (!runScript(terminalScript(checkedTTY(target->tty)))) activate("com.apple.Terminal");
                return;
            case JumpTarget::Kind::itermSession:
                if (!runScript(itermScript(checkedTTY(target->tty)))) activate("com.googlecode.iterm2");
                return;
            case JumpTarget::Kind::activateApp:
                activate(target->bundleId);
                return;
            }
        }
    }
};

} // namespace

std::unique_ptr<Jumper> makeSystemJumper()
{
    return std::make_unique<MacJumper>();
}

} // namespace skeldrin
