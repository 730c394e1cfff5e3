#include "Find.h"

#include <ipprmi.h>

#include <sstream>

#include "Report.h"

namespace {

/** An identifier with its namespace, which reading a TipprmiOID leaves out. */
struct Identifier {
    std::string text;
    int nameSpace = NSID_UNIT;
};
TipprmiStream& operator>>(TipprmiStream& stream, Identifier& identifier) {
    return stream >> identifier.text >> identifier.nameSpace;
}

TreflectObject findByIdentifier(std::string const& text) {
    TipprmiAny value;
    if (!TreflectParameterType("oid").parse(text, value)) {
        complain("\"" + text + "\" is no identifier");
        return {};
    }
    Identifier identifier;
    value.extract(identifier);
    TreflectObject object(
        TipprmiOID(identifier.text, static_cast<NamespaceId>(identifier.nameSpace)));
    if (!object.isConnected())
        complain("nobody serves \"" + text + "\"");
    return object;
}

/** The broker finds objects by their identifiers, and knows of no roots. So the object at the root
 * has its name as identifier; each object tells of its own children. */
TreflectObject findByPath(std::string const& path) {
    std::istringstream names(path.substr(1));
    std::string name;
    if (!std::getline(names, name, '/') || name.empty()) {
        complain("\"" + path + "\" begins with no name");
        return {};
    }
    TreflectObject object = findByIdentifier(name);
    for (std::string at = "/" + name; object.isConnected() && std::getline(names, name, '/');
         at += "/" + name) {
        object = object.getChild(name);
        if (!object.isConnected())
            complain(at + " has no child \"" + name + "\"");
    }
    return object;
}

}  // namespace

TreflectObject find(std::string const& name) {
    return name[0] == '/' ? findByPath(name) : findByIdentifier(name);
}
