#pragma once

#include <atomic>
#include <utility>

#include "oswrap/Export.h"

/** Base of reference-counted values. Deletes itself when its last reference goes. The count is
 * atomic, so that holders in several threads may come and go. */
class REFLECTORB_API TipprmiRCObject {
public:
    TipprmiRCObject() = default;
    /** A copy begins without references, and nothing of them is assigned: they belong to the
     * object, not to its value. */
    TipprmiRCObject(TipprmiRCObject const&) {}
    TipprmiRCObject& operator=(TipprmiRCObject const&) { return *this; }
    virtual ~TipprmiRCObject();

    /** For TipprmiRCPtr, which counts the references. Any thread that holds one. */
    void addReference() { references_.fetch_add(1, std::memory_order_relaxed); }
    /** Deletes the object when the last reference has gone. Any thread. */
    void removeReference() {
        if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }
    /** Whether several pointers may share this value; else each takes a copy of its own. */
    bool isShareable() const { return shareable_; }
    /** How many there are just now; for diagnostics. */
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
    /** Adds a reference to `value`, or to a copy of it if it is not shareable. */
    TipprmiRCPtr(T* value = nullptr) : value_(value) { init(); }
    /** Adds a reference, likewise. */
    TipprmiRCPtr(TipprmiRCPtr const& other) : value_(other.value_) { init(); }
    /** Takes over the reference of `other`, which is null then. */
    TipprmiRCPtr(TipprmiRCPtr&& other) noexcept : value_(std::exchange(other.value_, nullptr)) {}
    /** Drops the reference that it has, and adds one to that of `other`, or to a copy of it. */
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
    /** Exchanges the references. */
    TipprmiRCPtr& operator=(TipprmiRCPtr&& other) noexcept {
        std::swap(value_, other.value_);
        return *this;
    }
    ~TipprmiRCPtr() {
        if (value_)
            value_->removeReference();
    }

    /** What it leads to; not for null. */
    T& operator*() const { return *value_; }
    T* operator->() const { return value_; }
    /** What it leads to, perhaps null; no reference is added. */
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
