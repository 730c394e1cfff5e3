#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <tuple>

#include "reflect/NamespaceId.h"
#include "reflect/TreflectObject.h"
#include "reflect/TreflectObjectStub.h"
#include "reflect/TreflectOrbId.h"

/** What tells one object of a notice from another: its broker, namespace, internal id, and the text
 * of its identifier. The text because an internal id may be an address, which the next object can
 * have while the last is remembered. */
using ObjectPlace = std::tuple<unsigned int, NamespaceId, unsigned int, std::string>;

/** As much of an identifier's text as a place keeps: whole up to 256 bytes; what is longer is told
 * apart by its beginning, its length and a hash, since others choose how long it is. */
inline std::string keptOf(char const* text) {
    constexpr std::size_t kLongest = 256;
    std::string_view const whole = text ? text : "";
    if (whole.size() <= kLongest)
        return std::string(whole);
    return std::string(whole.substr(0, kLongest)) + ' ' + std::to_string(whole.size()) + ' ' +
           std::to_string(std::hash<std::string_view>()(whole));
}

inline ObjectPlace placeOf(TreflectObject const& object) {
    TreflectObjectStub const* const stub = object.getStub_();
    if (!stub)
        return {};
    TipprmiOID const oid = stub->getOID();
    char const* const text = oid.getIdString();
    return {stub->orbId().value(), stub->getNamespaceId(), stub->getInternalOID(), keptOf(text)};
}

inline TreflectOrbId brokerOf(ObjectPlace const& place) {
    return TreflectOrbId(std::get<0>(place));
}

/** The broker behind which the object is; none when the handle leads nowhere. */
inline TreflectOrbId brokerOf(TreflectObject const& object) {
    TreflectObjectStub const* const stub = object.getStub_();
    return stub ? stub->orbId() : TreflectOrbId();
}

/** The first place that the objects of a broker may have: all of them stand behind it. */
inline ObjectPlace firstPlaceAt(TreflectOrbId const& broker) {
    return {broker.value(), NamespaceId{}, 0, ""};
}

/** Erases from a set or map what it has of objects of a broker. */
template <class Places>
void eraseThoseAt(TreflectOrbId const& broker, Places& places) {
    unsigned int const next = broker.value() + 1;
    places.erase(places.lower_bound(firstPlaceAt(broker)),
                 next == 0 ? places.end() : places.lower_bound(firstPlaceAt(TreflectOrbId(next))));
}

/** Whether the object has not gone, as far as this process knows: with a broker that goes, handles
 * on its objects become invalid. */
inline bool mayBeThere(TreflectObject const& object) {
    TreflectObjectStub const* const stub = object.getStub_();
    return !stub || stub->isValid();
}
