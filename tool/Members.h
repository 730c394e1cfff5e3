// Members of objects, found by their names.
#pragma once

#include <reflect.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Failure.h"
#include "Objects.h"
#include "Tool.h"
#include "Values.h"

/** A member of an object, as it is written: OBJECT/MEMBER. A value. */
struct MemberPath {
    std::string object;
    std::string member;

    /** Throws a Failure when the text has no two parts. */
    explicit MemberPath(std::string const& text);
};

/** Something that was done with an object's member, or why it could not be. A value. */
struct Done {
    std::string object;
    std::string member;
    std::optional<Shown> value;  // none when there is nothing to show
    ExitCode outcome = ExitCode::kDone;
    std::string text = {};  // why it failed

    std::string path() const { return object + "/" + member; }
    /** {"object", "member", "type", "value"} or {"object", "member", "error"} */
    Json json() const;
};

/** {"code": 5, "name": "timed-out", "text": ...} */
Json errorJson(ExitCode outcome, std::string const& text);

/** The names of a class's members, each once, those of the class itself first. */
std::vector<TreflectMetaAttribute*> attributesOf(TreflectMetaObject const& meta);
std::vector<TreflectMetaOperation*> operationsOf(TreflectMetaObject const& meta);

/** The class of an object; throws a Failure when it is unknown. Under the run permission. */
TreflectMetaObject const& classOf(TreflectObject const& object);
/** A member of an object's class, bound to it; throws a Failure when there is none. */
TreflectAttribute& attributeOf(TreflectObject const& object, std::string const& name);
TreflectOperation& operationOf(TreflectObject const& object, std::string const& name);
/** Calls it: the results; throws a Failure when that fails. */
Values callOperation(TreflectOperation& operation, Values const& arguments);
/** What whoever wrote the class says of an attribute; empty for nothing. */
std::string commentOf(TreflectMetaAttribute const& attribute);
/** The unit of its numbers, if that comment tells one; else empty. */
std::string unitOf(TreflectMetaAttribute const& attribute);
/** What an attribute has now. It is read by its get operation, which describes the value: an
 * attribute itself can be read by those only who know its type. */
Shown readAttribute(TreflectAttribute& attribute);

/** Makes the arguments of an operation from their types; may throw a Failure. */
using Encode = std::function<Values(Types const& types)>;
/** Changes an attribute: the value that it was given. Throws a Failure when that fails. */
Shown setAttribute(TreflectAttribute& attribute, Encode const& encode);
/** Calls an operation: its result, a list of several, nothing for none. Throws likewise. */
std::optional<Shown> callForValue(TreflectOperation& operation, Encode const& encode);

/** What is done with one member of an object, under the run permission; may throw a Failure. */
using Use =
    std::function<std::optional<Shown>(TreflectObject const& object, std::string const& member)>;
/** Which members of a class a name may mean: as a pattern those of a kind, or the very one. */
enum class Kind { kAttributes, kOperations, kOne };
/** Does it with all that the paths tell, objects of one broker one after the other. The results in
 * the order of the paths; a path that leads nowhere has one, too. */
std::vector<Done> useMembers(Tool& tool, std::vector<std::string> const& paths, Kind kind,
                             Use const& use);

/** The same with a member, told by its very name, of objects that have been found. */
std::vector<Done> useMember(Asking& asking, std::vector<Found> const& objects,
                            std::string const& member, Use const& use);

/** Writes what has been done: values, failures. The first failure counts; also that somebody has
 * not answered who may have objects that a pattern means. */
ExitCode tellDone(Tool& tool, std::vector<Done> const& done, bool withPaths, char const* listName);
