#include "logging/Log.h"
#include "oswrap/Lock.h"
#include "reflect/TreflectAttribute.h"
#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectMetaObject.h"
#include "reflect/TreflectMetaOperation.h"
#include "reflect/TreflectObject.h"
#include "reflect/TreflectObjectStub.h"
#include "reflect/TreflectOperation.h"
#include "reflect/TreflectTieds.h"

namespace {

constexpr char kSource[] = "REFLECT_object";

/** Memory of one handle. While it is free its third word leads to the next free one, so that what
 * a handle has in its own words is left as it was. */
union Cell {
    struct {
        void* handle[2];
        Cell* next;
    } free;
    alignas(TreflectObject) unsigned char handle[sizeof(TreflectObject)];
};

constexpr int kCellsPerBlock = 256;

}  // namespace

template class TipprmiSequence<TreflectObject, 0u>;

TreflectErrorAttribute TreflectObject::errorAttribute(nullptr, nullptr);
TreflectErrorOperation TreflectObject::errorOperation(nullptr, nullptr);

TreflectObject::~TreflectObject() {
    releaseStub_();
    TreflectTieds::instance()->destroyTieds(this);
}

void TreflectObject::connect(TipprmiObjectSkeleton* skeleton) {
    TipprmiObjectClient::connect(skeleton);
}

void TreflectObject::connect(TreflectORB const* orb, TipprmiOID const& oid) {
    TipprmiObjectClient::connect(orb, oid);
}

void TreflectObject::connect(TipprmiOID const& oid) {
    TipprmiObjectClient::connect(nullptr, oid);
}

TipprmiStream& operator>>(TipprmiStream& stream, TreflectObject& value) {
    return stream >> static_cast<TipprmiObjectClient&>(value);
}

// ---- Members by name ---------------------------------------------------------------------------

TreflectAttribute& TreflectObject::attribute(std::string const& name) const {
    if (meta()) {
        TreflectMetaObject const* const known = meta();
        TreflectMetaAttribute const* const found = known ? known->metaAttribute(name) : nullptr;
        if (found) {
            TreflectAttribute* const bound = found->getTied(this);
            bound->clearIndex();
            return *bound;
        }
    }
    REFLECTORB_LOG(3, kSource, "attribute \"%s\" not found", name.c_str());
    return errorAttribute;
}

TreflectOperation& TreflectObject::operation(std::string const& name) const {
    if (meta()) {
        TreflectMetaObject const* const known = meta();
        TreflectMetaOperation const* const found = known ? known->metaOperation(name) : nullptr;
        if (found)
            return *found->getTied(this);
    }
    REFLECTORB_LOG(3, kSource, "operation \"%s\" not found", name.c_str());
    return errorOperation;
}

// ---- Questions that the stub asks --------------------------------------------------------------

TreflectMetaObject const* TreflectObject::meta() const {
    return getStub_() ? getStub_()->meta() : nullptr;
}

std::string TreflectObject::getAbsName() const {
    return getStub_() ? getStub_()->getAbsName() : std::string();
}

std::string TreflectObject::getRelName() const {
    return getStub_() ? getStub_()->getRelName() : std::string();
}

TreflectObject TreflectObject::getParent() const {
    return getStub_() ? getStub_()->getParent() : TreflectObject();
}

TreflectObject TreflectObject::getChild(std::string const& name) const {
    return getStub_() ? getStub_()->getChild(name) : TreflectObject();
}

TipprmiSequence<TreflectObject, 0u> TreflectObject::getChilds() const {
    return getStub_() ? getStub_()->getChilds() : TipprmiSequence<TreflectObject, 0u>();
}

void TreflectObject::registerChild(std::string const& name, TreflectObject const& child) const {
    if (getStub_())
        getStub_()->registerChild(name, child);
}

void TreflectObject::unregisterChild(std::string const& name) const {
    if (getStub_())
        getStub_()->unregisterChild(name);
}

void TreflectObject::registerObserver(unsigned int kind, TreflectMetaOperation const* operation,
                                      TreflectObserver* observer) const {
    if (getStub_())
        getStub_()->registerObserver(kind, operation, observer);
}

void TreflectObject::removeObserver(TreflectMetaOperation const* operation,
                                    TreflectObserver* observer) const {
    if (getStub_())
        getStub_()->removeObserver(operation, observer);
}

// ---- The pool ----------------------------------------------------------------------------------

OSWrap::Mutex& TreflectObject::poolMutex_ = *new OSWrap::Mutex;
void* TreflectObject::newList_ = nullptr;

void* TreflectObject::newCell_() {
    if (!newList_) {
        Cell* const block = static_cast<Cell*>(::operator new(kCellsPerBlock * sizeof(Cell)));
        for (int i = 0; i < kCellsPerBlock; ++i)
            block[i].free.next = i + 1 < kCellsPerBlock ? &block[i + 1] : nullptr;
        newList_ = block;
    }
    Cell* const cell = static_cast<Cell*>(newList_);
    newList_ = cell->free.next;
    return cell;
}

void* TreflectObject::operator new(std::size_t size) {
    if (size != sizeof(TreflectObject))
        return ::operator new(size);
    OSWrap::Lock<> const lock(poolMutex_);
    return newCell_();
}

void TreflectObject::operator delete(void* cell, std::size_t size) {
    if (!cell)
        return;
    if (size != sizeof(TreflectObject)) {
        ::operator delete(cell);
        return;
    }
    OSWrap::Lock<> const lock(poolMutex_);
    static_cast<Cell*>(cell)->free.next = static_cast<Cell*>(newList_);
    newList_ = cell;
}
