// Serves an object that gives back values of every type, and calls such objects of others by means
// of their class.
#include "ActorSide.h"
#include "EchoObject.h"
#include "Permitted.h"
#include "WireText.h"

namespace {

using testsupport::answer;

/** Whether a value has come back as it was; else it is told what came. */
template <class T>
bool isThat(T const& value, TipprmiResult<T> const& back) {
    std::string const was = wire::form(value);
    std::string const is = back ? wire::form(back.value()) : "failed";
    if (is != was)
        answer("fault: ", treflectTypeName<T>(), " was ", was, " and is ", is);
    return is == was;
}

/** By a call, and by name. */
template <std::size_t I, class T>
bool comesBack(TreflectObject const& object, T const& value) {
    TreflectAttribute& kept = object.attribute(echo::kKept[I].data());
    T read = tipprmiBlank<T>();
    return isThat<T>(value, tipprmiCall<T>(object, echo::kClass, echo::codeOf(I), value)) &&
           kept.store(value) && isThat<T>(value, kept.fetch<T>()) && kept.set(value) == 0 &&
           kept.get(read) == 0 && isThat<T>(value, read);
}

template <std::size_t... I>
std::size_t useAll(TreflectObject const& object, std::index_sequence<I...>) {
    auto const values = echo::everyValue();
    return (std::size_t{0} + ... + comesBack<I>(object, std::get<I>(values)));
}

/** A sequence needs no limit. */
bool keepsHistory(TreflectObject const& object) {
    std::vector<double> history(100'000, 0.1);
    history.back() = -1e300;
    TreflectAttribute& attribute = object.attribute("History");
    double last = 0;
    return attribute.set(history) == 0 &&
           attribute.fetch<std::vector<double>>().value() == history &&
           attribute[99'999].get(last) == 0 && last == history.back();
}

/** Whether the object's process describes the class as this one does. */
bool isDescribedAlike(TreflectObject const& object) {
    auto const described =
        TreflectProcessClient::of(object.getStub_()->orbId()).describeNamed("Echo");
    return described && described.value().at(0).outline() ==
                            TreflectClassDescription::of(*object.meta()).outline();
}

void use(std::string const& name) {
    TreflectObject const object(oid(name));
    std::size_t const back = useAll(object, std::make_index_sequence<echo::kTypes>());
    answer("used ", back, " ", keepsHistory(object), " ", isDescribedAlike(object));
}

}  // namespace

int main() {
    Permitted<echo::Object> object;
    testsupport::obeyLines(
        {{"serve",
          [&](std::string const& name) {
              object = makePermitted<echo::Object>(name);
              return "serving " + std::to_string(echo::kTypes);
          }},
         {"use", [](std::string const& name) { permitted([&] { use(name); }); }}});
    object.reset();
    prepareOrbForDeletion();
    return 0;
}
