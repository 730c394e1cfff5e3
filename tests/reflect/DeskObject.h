// The class that the tests of calls by value and their child program share.
#pragma once

#include <string>

#include "reflect.h"

namespace desk {

constexpr unsigned int kClass = 0xDE5C;
enum Method : unsigned int {
    kJoin = 1,
    kWords = 2,
    kRefuse = 3,
    kPassOn = 4,
    kCounted = 5,
    kTwo = 6  // and all that follow
};

inline TipprmiOID remoteId() {
    return TipprmiOID("desk.remote", NSID_UNIT);
}
inline TipprmiOID localId() {
    return TipprmiOID("desk.local", NSID_UNIT);
}

// All from "two" on answer the same two numbers, and say of them what is true or not.
inline TreflectMetaClass const meta("Desk", kClass, {},
                                    {{"join", kJoin, {"string", "unsigned"}, {"string"}},
                                     {"words", kWords, {"string"}, {"int", "sequence<string>"}},
                                     {"refuse", kRefuse, {"unsigned"}, {}},
                                     {"passOn", kPassOn, {"object"}, {"string"}},
                                     {"counted", kCounted, {}, {"unsigned"}},
                                     {"two", kTwo, {}, {"unsigned", "unsigned"}},
                                     {"twoInOne", kTwo + 1, {}, {"{unsigned,unsigned}"}},
                                     {"twoUndescribed", kTwo + 2},
                                     {"twoAsOne", kTwo + 3, {}, {"unsigned"}},
                                     {"twoAsThree", kTwo + 4, {}, {"unsigned", "unsigned", "bool"}},
                                     {"twoAsTexts", kTwo + 5, {}, {"string", "string"}},
                                     {"twoWithColour", kTwo + 6, {}, {"unsigned", "Colour"}},
                                     {"twoOfColour", kTwo + 7, {}, {"Colour", "unsigned"}}});

struct Words {
    int count = 0;
    TipprmiSequence<std::string, 0u> words;
};
inline TipprmiStream& operator<<(TipprmiStream& stream, Words const& value) {
    return stream << value.count << value.words;
}

struct Two {};
inline TipprmiStream& operator<<(TipprmiStream& stream, Two) {
    return stream << 0xFF000001u << 2u;
}

class Server : public TreflectSkeleton<meta> {
public:
    explicit Server(TipprmiOID const& oid) : TreflectSkeleton(oid, nullptr, "desk") {}

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        if (mc >= kTwo && mc < kTwo + 8)
            return serve(kClass, cc, mc, in, out, &Server::two);
        switch (mc) {
            case kJoin:
                return serve(kClass, cc, mc, in, out, &Server::join);
            case kWords:
                return serve(kClass, cc, mc, in, out, &Server::words);
            case kRefuse:
                return serve(kClass, cc, mc, in, out, &Server::refuse);
            case kPassOn:
                return serve(kClass, cc, mc, in, out, &Server::passOn);
            case kCounted:
                return serve(kClass, cc, mc, in, out, &Server::counted);
            default:
                return TreflectServerObject::dispatch(withResponse, cc, mc, in, out);
        }
    }

    virtual std::string join(std::string const& text, unsigned int number) {
        ++joined_;
        return text + std::to_string(number);
    }
    Words words(std::string const& text) const {
        Words words;
        for (char const c : text)
            words.words.push_back(std::string(1, c));
        words.count = static_cast<int>(text.size());
        return words;
    }
    TipprmiResult<void> refuse(unsigned int code) {
        return code == 0 ? TipprmiResult<void>() : TipprmiFailure(code);
    }
    /** Has another object join. */
    TipprmiResult<std::string> passOn(TreflectObject const& object) {
        return tipprmiCall<std::string>(object, kClass, kJoin, "passed on ", 1u);
    }
    /** How often this object has joined. */
    unsigned int counted() const { return joined_; }
    Two two() const { return {}; }

private:
    unsigned int joined_ = 0;
};

}  // namespace desk
