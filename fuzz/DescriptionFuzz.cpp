// Classes as other processes describe them: from bytes to meta objects that are used.
#include <map>

#include "FuzzProcess.h"
#include "handler_threads/WithPermission.h"
#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectMetaOperation.h"
#include "reflect/process/Learning.h"

namespace {

using Descriptions = Learning::Descriptions;

/** Gives each class the hash of what it is, which nobody finds by chance; bases come behind those
 * that are derived from them. */
void mendHashes(Descriptions& descriptions) {
    std::map<unsigned int, std::uint64_t> hashes;
    for (auto described = descriptions.rbegin(); described != descriptions.rend(); ++described) {
        for (TreflectClassDescription::Base& base : described->bases)
            base.hash = hashes.count(base.id) != 0 ? hashes[base.id] : base.hash;
        described->hash = described->computeHash();
        hashes[described->id] = described->hash;
    }
}

/** What is written is read as the same. */
void requireRoundTrip(TreflectClassDescription const& described) {
    TipprmiStream stream(100);
    stream << described;
    TreflectClassDescription read;
    stream >> read;
    if (read.outline() != described.outline() || stream.getUnreadSize() != 0)
        std::abort();
    TreflectClassDescription::difference(described, read);
}

void use(TreflectMetaObject const& meta) {
    std::list<TreflectMetaOperation*> operations;
    meta.operationList(operations);
    for (TreflectMetaOperation const* const operation : operations) {
        operation->argumentTypes();
        operation->resultTypes();
        for (auto const& exception : operation->exceptions())
            operation->exceptionType(exception.first);
        if (!meta.metaOperation_(operation->name()))
            std::abort();
    }
    std::list<TreflectMetaAttribute*> attributes;
    meta.attributeList(attributes);
    for (TreflectMetaAttribute const* const attribute : attributes) {
        if (!attribute->metaOperGet())
            std::abort();
    }
    TreflectClassDescription::of(meta);
}

/** The first byte says whether the hashes are mended; behind it stands what arrives. */
void runDescription(std::uint8_t const* data, std::size_t size) {
    if (size < 1)
        return;
    TipprmiStream stream(data + 1, static_cast<int>(size - 1));
    Descriptions descriptions;
    stream >> descriptions;
    if (stream.hasUnmarshallingFailed() || descriptions.empty())
        return;
    if ((data[0] & 1) != 0)
        mendHashes(descriptions);
    WithPermission const permission;
    Learning learning;
    for (unsigned int broker = 1; broker < 3; ++broker) {
        TreflectMetaObject const* const meta =
            learning.admit(descriptions[0].id, TreflectOrbId(broker), descriptions, size);
        if (meta)
            use(*meta);
    }
    for (TreflectClassDescription const& described : descriptions)
        requireRoundTrip(described);
}

}  // namespace

FUZZ_TARGET(description, runDescription)
