// Small reflective objects of a test's own process, and an observer that does what it is told.
#pragma once

#include <functional>

#include "ReflectiveClasses.h"

namespace gauge {
constexpr unsigned int kClass = 0x52430010;
constexpr unsigned int kTooMuch = 9;  // the refusal of more than 100
enum Method : unsigned int { kGet = 1, kSet = 2, kReset = 3 };
}  // namespace gauge

inline TreflectMetaClass const gaugeMeta("Gauge", gauge::kClass, {},
                                         {{"getValue", gauge::kGet, {}, {"unsigned"}},
                                          {"setValue", gauge::kSet, {"unsigned"}, {}},
                                          {"reset", gauge::kReset}},
                                         {"Value"});

/** A name in the tree. Its parts are on the heap, so that a use after its end is seen. */
class Node : public TreflectServerObject {
public:
    explicit Node(std::string const& name, TreflectObject const* parent = nullptr)
        : Node(name, name, parent) {}
    Node(std::string const& identifier, std::string const& name, TreflectObject const* parent)
        : TreflectServerObject(TipprmiOID(identifier, NSID_UNIT), parent, name) {}

    unsigned int getServerClassId() const override { return *class_; }
    TipprmiSequence<unsigned int, 0u> getServerClassIdSeq() const override { return ids; }

    TipprmiSequence<unsigned int, 0u> ids;

private:
    std::unique_ptr<unsigned int> const class_ = std::make_unique<unsigned int>(0x4E0DE);
};

class Gauge : public TreflectSkeleton<gaugeMeta> {
public:
    explicit Gauge(std::string const& name, TreflectObject const* parent = nullptr)
        : TreflectSkeleton(TipprmiOID(name, NSID_UNIT), parent, name) {}
    ~Gauge() override { ended = true; }

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        auto const by = [&](auto method) { return serve(gauge::kClass, cc, mc, in, out, method); };
        return mc == gauge::kGet   ? by(&Gauge::get)
               : mc == gauge::kSet ? by(&Gauge::set)
               : mc == gauge::kReset
                   ? by(&Gauge::reset)
                   : TreflectServerObject::dispatch(withResponse, cc, mc, in, out);
    }

    unsigned int get() const {
        unsigned int const now = value;
        // It may destroy this object.
        if (std::function<void()> const act = meanwhile)
            act();
        return now;
    }
    TipprmiResult<void> set(unsigned int wanted) {
        *called_ += ended ? 1000 : 1;
        if (wanted > 100)
            return TipprmiFailure(gauge::kTooMuch);
        value = wanted;
        return {};
    }
    void reset() { value = 0; }

    unsigned int calls() const { return *called_; }

    unsigned int value = 1;
    std::function<void()> meanwhile;  // while the value is being asked for

private:
    bool ended = false;
    std::unique_ptr<unsigned int> const called_ = std::make_unique<unsigned int>(0);
};

/** The client class: direct calls for a gauge of this process. */
class GaugeClient : public TreflectObject {
public:
    using TreflectObject::TreflectObject;

    TipprmiResult<unsigned int> get() const {
        return treflectCall(*this, gauge::kClass, gauge::kGet, &Gauge::get);
    }
    TipprmiResult<void> set(unsigned int wanted) const {
        return treflectCall(*this, gauge::kClass, gauge::kSet, &Gauge::set, wanted);
    }
    TipprmiResult<void> reset() const {
        return treflectCall(*this, gauge::kClass, gauge::kReset, &Gauge::reset);
    }
};

/** Notes what it is told, and answers as it is set. */
class Watcher : public TreflectObserver {
public:
    explicit Watcher(std::string const& name)
        : TreflectObserver(TipprmiOID(name, NSID_UNIT), nullptr, name) {}

    bool update() override {
        ++told;
        sourceNames.push_back(getSource()->getRelName());
        values.clear();
        for (unsigned int i = 0, number = 0; argument(i, number); ++i)
            values.push_back(number);
        // It may destroy this observer.
        std::function<bool()> const reaction = react;
        return reaction ? reaction() : answer;
    }

    bool answer = true;
    std::function<bool()> react;
    int told = 0;
    std::vector<std::string> sourceNames;
    std::vector<unsigned int> values;  // of the last time
};
