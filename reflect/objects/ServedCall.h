// A call that is being served, for observers who are told who has made it and what has come of it.
#pragma once

#include <optional>

#include "ipprmi/TipprmiStream.h"
#include "reflect/TreflectServerObject.h"

/**
 * A call that the calling thread serves, for a scope. Costs next to nothing as long as nobody
 * observes it. Under the run permission.
 */
class ServedCall {
public:
    /** `caller`: the broker from which it comes; 0: this process. `object`: null for one that has
     * no observers. */
    ServedCall(Transport::TerminationId caller, TreflectServerObject* object)
        : caller_(caller), object_(object), outer_(innermost_) {
        innermost_ = this;
    }
    ~ServedCall() { innermost_ = outer_; }
    ServedCall(ServedCall const&) = delete;
    ServedCall& operator=(ServedCall const&) = delete;

    /** That of the calling thread, if it is one of this object; else null. */
    static ServedCall* of(TreflectObservable const& object) {
        bool const isIt = innermost_ && innermost_->object_ == &object && !innermost_->isOver();
        return isIt ? innermost_ : nullptr;
    }
    /** Whether observers have been told that this operation begins, and no other one that the
     * object itself tells of. */
    bool isOf(unsigned int classId, unsigned int methodCode) const {
        return life_ && classId_ == classId && methodCode_ == methodCode;
    }

    /** Observers are about to be told of the call, or of its end. */
    void begins(unsigned int classId, unsigned int methodCode);
    void ends(unsigned int classId, unsigned int methodCode,
              TipprmiSequence<TipprmiAny, 0u> const& results);
    /** The arguments, and what tells the call from others. */
    TipprmiSequence<TipprmiAny, 0u> numbered(
        TipprmiSequence<TipprmiAny, 0u> const& arguments) const;
    /** Tells those who want to know what has come of it. `response`: what the caller is answered;
     * null when that is not known. What goes wrong with that concerns nobody else. */
    void tellOutcome(TipprmiStream const* response);

private:
    /** The object has been destroyed meanwhile; another one may be where it was. */
    bool isOver() const { return life_ && life_->ended(); }
    void tell(TipprmiStream const* response);
    void addTo(TipprmiSequence<TipprmiAny, 0u>& values) const;

    static thread_local ServedCall* innermost_;

    Transport::TerminationId const caller_;
    TreflectServerObject* const object_;  // while life_ lasts
    ServedCall* const outer_;
    // Of a call of which observers have been told.
    std::optional<TreflectObservable::Life> life_;
    unsigned int number_ = 0;
    unsigned int callerOrb_ = 0;
    unsigned int classId_ = 0;
    unsigned int methodCode_ = 0;
    TipprmiSequence<TipprmiAny, 0u> results_;
    bool hasResults_ = true;  // false: there was no memory for them
};
