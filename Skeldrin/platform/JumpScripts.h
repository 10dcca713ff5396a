#pragma once
#include <stdexcept>
#include <string>

namespace skeldrin {

// Why a jump could not be made; what() is the text shown to the user.
class JumpError : public std::runtime_error {
  public:
    enum class Kind { appNotFound, invalidTTY, script, unknownOrigin };

    static JumpError appNotFound(const std::string& bundleId);
    static JumpError invalidTTY(const std::string& tty);
    static JumpError script(const std::string& message, long code);
    static JumpError unknownOrigin();

    Kind kind() const { return kind_; }
    long code() const { return code_; }

  private:
    JumpError(Kind kind, const std::string& text, long code = 0);
    Kind kind_;
    long code_;
};

// Apple events refused by the user's automation permission.
constexpr long automationDeniedCode = -1743;

// The device path unchanged when it is a terminal device the scripts may name; else throws invalidTTY.
std::string checkedTTY(const std::string& tty);

// Scripts that select the tab or session on a (checked) device and report whether one was found.
std::string terminalScript(const std::string& tty);
std::string itermScript(const std::string& tty);

} // namespace skeldrin
