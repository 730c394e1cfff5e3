// Small reflective objects of a test's own process.
#pragma once

#include <functional>

#include "ReflectiveClasses.h"
#include "Watcher.h"

namespace gauge {
constexpr unsigned int kClass = 0x52430010;
constexpr unsigned int kTooMuch = 9;  // the refusal of more than 100
enum Method : unsigned int { kGet = 1, kSet = 2, kReset = 3 };
}  // namespace gauge

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

class Gauge : public TreflectInterface<Gauge> {
public:
    explicit Gauge(std::string const& name, TreflectObject const* parent = nullptr)
        : TreflectInterface(TipprmiOID(name, NSID_UNIT), parent, name) {}
    ~Gauge() override { ended = true; }

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

    static constexpr auto interface() {
        return describe("Gauge", gauge::kClass,
                        attribute<&Gauge::get, &Gauge::set>("Value", gauge::kGet, gauge::kSet),
                        op<&Gauge::reset>("reset", gauge::kReset));
    }

    unsigned int calls() const { return *called_; }

    unsigned int value = 1;
    std::function<void()> meanwhile;  // while the value is being asked for

private:
    bool ended = false;
    std::unique_ptr<unsigned int> const called_ = std::make_unique<unsigned int>(0);
};

/** The client class: direct calls for a gauge of this process. */
class GaugeClient : public TreflectClient<Gauge> {
public:
    using TreflectClient::TreflectClient;

    TipprmiResult<unsigned int> get() const { return call<&Gauge::get>(); }
    TipprmiResult<void> set(unsigned int wanted) const { return call<&Gauge::set>(wanted); }
    TipprmiResult<void> reset() const { return call<&Gauge::reset>(); }
};
