#pragma once

#include <iosfwd>
#include <string>

namespace velmora::HelperPass {

// The outcome of checking a start pass. An invalid verdict carries one reason word:
// "malformed", "signature", "payload", "origin", "expired" or "used".
class Verdict {
  public:
    enum class Kind { ok, missing, invalid };

    static Verdict ok();
    static Verdict missing();
    static Verdict invalid(std::string reason);

    Kind kind() const { return kind_; }
    // The reason word of an invalid verdict; empty otherwise.
    const std::string& reason() const { return reason_; }

    bool operator==(const Verdict&) const = default;

  private:
    Verdict(Kind kind, std::string reason);

    Kind kind_;
    std::string reason_;
};

// "ok", "missing" or "invalid(reason)", for logs and test failure messages.
std::ostream& operator<<(std::ostream& stream, const Verdict& verdict);

}  // namespace velmora::HelperPass
