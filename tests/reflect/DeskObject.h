// The class that the tests of calls by value and their child program share.
#pragma once

#include <string>

#include "reflect.h"

namespace desk {

constexpr unsigned int kClass = 0xDE5C;
enum Method : unsigned int {
    kJoin = 1,
    kRefuse = 2,
    kCounted = 3,
    kTwo = 4,  // and all that follow
    kGetOwner = 20,
    kSetOwner = 21
};

// All from "two" on answer the same two numbers, and say of them what is true or not.
inline TreflectMetaClass const meta("Desk", kClass, {},
                                    {{"join", kJoin, {"string", "unsigned"}, {"string"}},
                                     {"refuse", kRefuse, {"unsigned"}, {}},
                                     {"counted", kCounted, {}, {"unsigned"}},
                                     {"two", kTwo, {}, {"unsigned", "unsigned"}},
                                     {"twoInOne", kTwo + 1, {}, {"{unsigned,unsigned}"}},
                                     {"twoUndescribed", kTwo + 2},
                                     {"twoAsOne", kTwo + 3, {}, {"unsigned"}},
                                     {"twoAsThree", kTwo + 4, {}, {"unsigned", "unsigned", "bool"}},
                                     {"twoWithColour", kTwo + 5, {}, {"unsigned", "Colour"}},
                                     {"twoOfColour", kTwo + 6, {}, {"Colour", "unsigned"}},
                                     {"getOwner", kGetOwner, {}, {"oid"}},
                                     {"setOwner", kSetOwner, {"oid"}, {}}},
                                    {"Owner"});

struct Two {};
inline TipprmiStream& operator<<(TipprmiStream& stream, Two) {
    return stream << 0xFF000001u << 2u;
}

class Server : public TreflectSkeleton<meta> {
public:
    Server() : TreflectSkeleton(TipprmiOID("desk", NSID_UNIT), nullptr, "desk") {}

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        auto const by = [&](auto method) { return serve(kClass, cc, mc, in, out, method); };
        return mc >= kTwo && mc < kTwo + 7 ? by(&Server::two)
               : mc == kJoin               ? by(&Server::join)
               : mc == kRefuse             ? by(&Server::refuse)
               : mc == kCounted            ? by(&Server::counted)
               : mc == kGetOwner           ? by(&Server::getOwner)
               : mc == kSetOwner           ? by(&Server::setOwner)
                                 : TreflectServerObject::dispatch(withResponse, cc, mc, in, out);
    }

    std::string join(std::string const& text, unsigned int number) {
        ++joined_;
        return text + std::to_string(number);
    }
    TipprmiResult<void> refuse(unsigned int code) {
        return code == 0 ? TipprmiResult<void>() : TipprmiFailure(code);
    }
    /** How often this object has joined. */
    unsigned int counted() const { return joined_; }
    Two two() const { return {}; }
    TipprmiOID getOwner() const { return owner_; }
    void setOwner(TipprmiOID const& owner) { owner_ = owner; }

private:
    unsigned int joined_ = 0;
    TipprmiOID owner_{"", NSID_UNIT};
};

}  // namespace desk
