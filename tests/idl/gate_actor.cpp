// Serves a gate until its input ends, and tells of classes what a process object tells.
#include <handler_threads.h>

#include "ActorSide.h"
#include "GateObject.h"

namespace {

/** The class, then its bases, as text. */
std::string described(unsigned int classId) {
    TreflectParameterType const type(treflectTypeName<std::vector<TreflectClassDescription>>());
    TreflectProcessObject const published;
    TreflectProcessClient const process(TipprmiOID(TreflectProcessObject::identifier(), NSID_UNIT));
    TipprmiAny value;
    value.insert(process.describe(classId).value());
    return type.print(value).value();
}

/** What is wrong with a class as it is described in a text, or differs from that of this program.
 */
std::string differenceIn(std::string const& text) {
    TipprmiAny value;
    if (!TreflectParameterType(treflectTypeName<TreflectClassDescription>()).parse(text, value))
        return "unreadable";
    TreflectClassDescription read;
    value.extract(read);
    TreflectMetaObject const* const own = InterfaceRepository::instance()->findInterface(read.id);
    std::string all = read.fault();
    for (std::string const& line :
         TreflectClassDescription::difference(TreflectClassDescription::of(*own), read))
        all += line;
    return all;
}

bool obey(std::string const& verb, std::istream& words) {
    TreflectHandlerState const inside(true);
    std::string text;
    std::getline(words >> std::ws, text);
    if (verb == "describe")
        testsupport::answer("described ", described(static_cast<unsigned int>(std::stoul(text))));
    else if (verb == "understand")
        testsupport::answer("understood ", differenceIn(text));
    return true;
}

}  // namespace

int main() {
    TreflectHandlerState const inside(true);
    Gate const gate("gate");
    {
        TreflectReleaseHandlerState const outside;
        testsupport::obeyLines(obey);
    }
    prepareOrbForDeletion();
    return 0;
}
