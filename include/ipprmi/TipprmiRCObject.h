#pragma once

#include <atomic>
#include <utility>

#include "oswrap/Export.h"

/** Base of reference-counted values. Deletes itself when its last reference goes. The count is
 * atomic, so that holders in several threads may come and go. */
class REFLECTORB_API TipprmiRCObject {
public:
    TipprmiRCObject() = default;
    TipprmiRCObject(TipprmiRCObject const&) {}
    TipprmiRCObject& operator=(TipprmiRCObject const&) { return *this; }
    virtual ~TipprmiRCObject();

    void addReference() { references_.fetch_add(1, std::memory_order_relaxed); }
    void removeReference() {
        if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }
    /** Whether several pointers may share this value; else each takes a copy of its own. */
    bool isShareable() const { return shareable_; }
    int references() const { return references_.load(std::memory_order_relaxed); }

protected:
    /** For a derived class whose values must not be shared. A copy is shareable again. */
    void setShareable(bool shareable) { shareable_ = shareable; }

private:
    std::atomic<int> references_{0};
    bool shareable_ = true;
};

/** Counted pointer to a TipprmiRCObject; may be null. */
template <class T>
class TipprmiRCPtr {
public:
    TipprmiRCPtr(T* value = nullptr) : value_(value) { init(); }
    TipprmiRCPtr(TipprmiRCPtr const& other) : value_(other.value_) { init(); }
    TipprmiRCPtr(TipprmiRCPtr&& other) noexcept : value_(std::exchange(other.value_, nullptr)) {}
    TipprmiRCPtr& operator=(TipprmiRCPtr const& other) {
        if (value_ != other.value_) {
            T* const old = value_;
            value_ = other.value_;
            init();
            if (old)
                old->removeReference();
        }
        return *this;
    }
    TipprmiRCPtr& operator=(TipprmiRCPtr&& other) noexcept {
        std::swap(value_, other.value_);
        return *this;
    }
    ~TipprmiRCPtr() {
        if (value_)
            value_->removeReference();
    }

    T& operator*() const { return *value_; }
    T* operator->() const { return value_; }
    T* get() const { return value_; }

private:
    void init() {
        if (!value_)
            return;
        if (!value_->isShareable())
            value_ = new T(*value_);
        value_->addReference();
    }

    T* value_;
};
