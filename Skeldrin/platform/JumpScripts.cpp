#include "Skeldrin/platform/JumpScripts.h"

#include <algorithm>

namespace skeldrin {

JumpError::JumpError(Kind kind, const std::string& text, long code)
    : std::runtime_error(text)
    , kind_(kind)
    , code_(code)
{
}

JumpError JumpError::appNotFound(const std::string& bundleId)
{
    return {Kind::appNotFound, "The app that started this session (" + bundleId + ") isn't installed."};
}

JumpError JumpError::invalidTTY(const std::string& tty)
{
    return {Kind::invalidTTY, "Unexpected terminal device: " + tty};
}

JumpError JumpError::script(const std::string& message, long code)
{
    if (code == automationDeniedCode)
        return {Kind::script,
                "Allow Skeldrin to control your terminal in System Settings → Privacy & Security → "
                "Automation. (" +
                    message + ")",
                code};
    return {Kind::script, message, code};
}

JumpError JumpError::unknownOrigin()
{
    return {Kind::unknownOrigin, "This session didn't say where it was started, so there's nothing to open."};
}

std::string checkedTTY(const std::string& tty)
{
    constexpr std::string_view prefix = "/dev/tty";
    const bool valid = tty.size() > prefix.size() && tty.starts_with(prefix) &&
                       std::all_of(tty.begin() + prefix.size(), tty.end(),
                                   [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); });
    if (!valid) throw JumpError::invalidTTY(tty);
    return tty;
}

std::string terminalScript(const std::string& tty)
{
    return "tell application id \"com.apple.Terminal\"\n"
           "    repeat with w in windows\n"
           "        repeat with t in tabs of w\n"
           "            if tty of t is \"" +
           tty +
           "\" then\n"
           "                if miniaturized of w then set miniaturized of w to false\n"
           "                set selected of t to true\n"
           "                set index of w to 1\n"
           "                activate\n"
           "                return true\n"
           "            end if\n"
           "        end repeat\n"
           "    end repeat\n"
           "end tell\n"
           "return false";
}

std::string itermScript(const std::string& tty)
{
    return "tell application id \"com.googlecode.iterm2\"\n"
           "    repeat with w in windows\n"
           "        repeat with t in tabs of w\n"
           "            repeat with s in sessions of t\n"
           "                if tty of s is \"" +
           tty +
           "\" then\n"
           "                    select w\n"
           "                    tell t to select\n"
           "                    tell s to select\n"
           "                    activate\n"
           "                    return true\n"
           "                end if\n"
           "            end repeat\n"
           "        end repeat\n"
           "    end repeat\n"
           "end tell\n"
           "return false";
}

} // namespace skeldrin
