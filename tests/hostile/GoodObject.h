// The objects of the good processes, their classes, and the handle on them.
#pragma once

#include <functional>
#include <string>

#include "handler_threads.h"
#include "ipprmi.h"
#include "reflect.h"

namespace hostile {

constexpr unsigned int kClass = 0x600D00;
constexpr unsigned int kThing = kClass + 1;
enum Method : unsigned int {
    kEcho = 1,  // (text) -> text
    kNote = 2,  // (who) one-way
    kIdle = 3   // () -> nothing; good ones do not call it
};

inline TreflectMetaClass const goodMeta("Good", kClass, {},
                                        {{"echo", kEcho, {"string"}, {"string"}},
                                         {"note", kNote, {"string"}, {}},
                                         {"idle", kIdle, {}, {}}},
                                        {});
inline TreflectMetaClass const thingMeta("Thing", kThing, {}, {});

/** What every good process serves, under its name. */
class Object final : public TreflectSkeleton<goodMeta> {
public:
    using Noted = std::function<void(std::string const& who)>;

    Object(std::string const& name, Noted noted)
        : TreflectSkeleton(TipprmiOID(name, NSID_UNIT), nullptr, name), noted_(std::move(noted)) {}

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        auto const by = [&](auto method) { return serve(kClass, cc, mc, in, out, method); };
        return mc == kEcho   ? by(&Object::echo)
               : mc == kNote ? by(&Object::note)
               : mc == kIdle ? by(&Object::idle)
                             : TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);
    }

    std::string echo(std::string const& text) { return text; }
    void note(std::string const& who) { noted_(who); }
    void idle() {}

private:
    Noted const noted_;
};

class Client : public TreflectObject {
public:
    using TreflectObject::TreflectObject;

    TipprmiResult<std::string> echo(std::string const& text) const {
        return treflectCall(*this, kClass, kEcho, &Object::echo, text);
    }
    TipprmiResult<void> note(std::string const& who) const {
        return tipprmiSend(*this, kClass, kNote, who);
    }
};

/** Announces itself when it comes, and when it goes. */
class Thing final : public TreflectSkeleton<thingMeta> {
public:
    explicit Thing(unsigned long number)
        : TreflectSkeleton(TipprmiOID("thing." + std::to_string(number), NSID_UNIT), nullptr,
                           "thing") {
        sendCreationEvent();
    }
    ~Thing() override { sendDeletionEvent(); }
};

}  // namespace hostile
