// The reflective class that the benchmarks measure.
#pragma once

#include <string>

#include "ipprmi.h"
#include "reflect.h"

namespace bench {

namespace gauge {
constexpr unsigned int kClass = 0xBE4C4002;
enum Method : unsigned int { kGetText = 1, kSetText = 2, kGetLevel = 3 };
}  // namespace gauge

inline TreflectMetaClass const gaugeMeta("Gauge", gauge::kClass, {},
                                         {{"getText", gauge::kGetText, {}, {"string"}},
                                          {"setText", gauge::kSetText, {"string"}, {}},
                                          {"getLevel", gauge::kGetLevel, {}, {"unsigned"}}},
                                         {"Text", "Level"});

class GaugeSkeleton : public TreflectServerObject {
public:
    using TreflectServerObject::TreflectServerObject;

    virtual std::string getText() = 0;
    virtual void setText(std::string const& text) = 0;
    virtual unsigned int getLevel() = 0;

    unsigned int getServerClassId() const override { return gauge::kClass; }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override {
        return gaugeMeta.classIds();
    }
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        switch (mc) {
            case gauge::kGetText:
                return serve(gauge::kClass, cc, mc, in, out, &GaugeSkeleton::getText);
            case gauge::kSetText:
                return serve(gauge::kClass, cc, mc, in, out, &GaugeSkeleton::setText);
            case gauge::kGetLevel:
                return serve(gauge::kClass, cc, mc, in, out, &GaugeSkeleton::getLevel);
            default:
                return TreflectServerObject::dispatch(withResponse, cc, mc, in, out);
        }
    }
};

/** Its text has 32 bytes, as that of the calls that are measured beside it. */
class Gauge final : public GaugeSkeleton {
public:
    using GaugeSkeleton::GaugeSkeleton;

    std::string getText() override { return text_; }
    void setText(std::string const& text) override { text_ = text; }
    unsigned int getLevel() override { return ++level_; }

private:
    std::string text_ = std::string(32, 'g');  // guarded by the run permission, as the next
    unsigned int level_ = 0;
};

/** The client class that a user would write for it. */
class GaugeClient : public TreflectObject {
public:
    using TreflectObject::TreflectObject;

    TipprmiResult<std::string> getText() const {
        return treflectCall(*this, gauge::kClass, gauge::kGetText, &GaugeSkeleton::getText);
    }
    TipprmiResult<unsigned int> getLevel() const {
        return treflectCall(*this, gauge::kClass, gauge::kGetLevel, &GaugeSkeleton::getLevel);
    }
};

}  // namespace bench
