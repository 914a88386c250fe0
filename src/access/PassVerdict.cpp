#include "access/PassVerdict.h"

#include <ostream>

namespace velmora::HelperPass {

Verdict::Verdict(Kind kind, std::string reason) : kind_(kind), reason_(std::move(reason)) {}

Verdict Verdict::ok() {
    return Verdict(Kind::ok, {});
}

Verdict Verdict::missing() {
    return Verdict(Kind::missing, {});
}

Verdict Verdict::invalid(std::string reason) {
    return Verdict(Kind::invalid, std::move(reason));
}

std::ostream& operator<<(std::ostream& stream, const Verdict& verdict) {
    switch (verdict.kind()) {
        case Verdict::Kind::ok:
            return stream << "ok";
        case Verdict::Kind::missing:
            return stream << "missing";
        case Verdict::Kind::invalid:
            return stream << "invalid(" << verdict.reason() << ")";
    }
    return stream;
}

}  // namespace velmora::HelperPass
