#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ipprmi/TipprmiSequence.h"
#include "logging/LineLimit.h"
#include "oswrap/Mutex.h"
#include "reflect/TreflectMemberFactory.h"
#include "reflect/TreflectMetaMember.h"
#include "reflect/TreflectParameterType.h"

/** An operation of a class, known by the method code under which server objects answer it. */
class REFLECTORB_API TreflectMetaOperation : public TreflectMetaMember,
                                             public TreflectMemberFactory<TreflectOperation> {
public:
    /** An operation without parameters, until they are registered. `owner` is not owned. */
    TreflectMetaOperation(std::string const& name, TreflectMetaObject const* owner, int id);
    ~TreflectMetaOperation() override;

    /** The method code. */
    int id() const { return id_; }
    /** Describes a parameter, for programs that know nothing of the class; a second value for a key
     * replaces the first. Keys are "in0", "in1", ... and "out0", ...; values are names of types,
     * see TreflectParameterType, which may refer to the types of the class, or empty for a type
     * that nobody has named. */
    void registerParameter(std::string key, std::string value);
    /** What registerParameter has told. */
    std::map<std::string, std::string> const& parameters() const { return parameters_; }
    /** The types of the arguments and of the results in their order, as far as they are described
     * without a gap; each invalid if it is no name of a type. Made once. Any thread. */
    std::vector<TreflectParameterType> argumentTypes() const;
    std::vector<TreflectParameterType> resultTypes() const;

    /** Describes what the operation may be refused with: the code of the failure, and the type of
     * what comes with it, a struct with a name. A second one for a code replaces the first. */
    void registerException(unsigned int code, std::string type);
    /** What registerException has told. */
    std::map<unsigned int, std::string> const& exceptions() const { return exceptions_; }
    /** The type that belongs to a code; an invalid one when the code tells nothing more. */
    TreflectParameterType exceptionType(unsigned int code) const;

private:
    friend class TreflectOperation;

    /** What the operation takes and yields. */
    struct Signature {
        std::vector<TreflectParameterType> in;
        std::vector<TreflectParameterType> out;

        /** What is wrong with arguments, in words; empty if nothing is, or no types are told. */
        std::string mistakeIn(TipprmiSequence<TipprmiAny, 0u> const& arguments) const;
        /** The types of the arguments, with commas. */
        std::string inText() const;
    };

    std::shared_ptr<Signature const> signature() const;
    TreflectParameterType typeOf(std::string const& text) const;
    std::vector<TreflectParameterType> typesOf(char const* direction) const;

    int const id_;
    // Fixed once the class is complete.
    std::map<std::string, std::string> parameters_;
    std::map<unsigned int, std::string> exceptions_;
    mutable Logging::LineLimit mistakes_;
    mutable OSWrap::Mutex mutex_;  // a leaf
    /// Null until it is asked for.
    mutable std::shared_ptr<Signature const> signature_ OSW_GUARDED_BY(mutex_);
};
