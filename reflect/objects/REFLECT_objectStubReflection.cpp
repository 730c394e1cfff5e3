// What a stub asks its object: its classes, its place in the tree of names, its observers.
#include "ipprmi/StandardMethods.h"
#include "logging/Log.h"
#include "reflect/InterfaceRepository.h"
#include "reflect/TreflectMetaClass.h"
#include "reflect/TreflectMetaOperation.h"
#include "reflect/TreflectObserver.h"
#include "reflect/objects/StubInUse.h"
#include "reflect/process/Learning.h"

namespace {

constexpr char kSource[] = "REFLECT_objectStub";

}  // namespace

/** One question to an object that is asked through streams. */
class TreflectObjectStub::Question {
public:
    Question(TreflectObjectStub const& stub, unsigned int mc, unsigned int cc = standard::kClass)
        : stub_(stub),
          inUse_(stub),
          cc_(cc),
          mc_(mc),
          request_(TipprmiStream::kUsualSize),
          response_(TipprmiStream::withoutBuffer_()) {
        stub_.prepareRequestStream_(true, cc_, mc_, request_);
    }

    /** For the arguments. */
    TipprmiStream& request() { return request_; }
    void send() { stub_.dispatch(true, cc_, mc_, request_, response_); }
    /** Reads the answer; a default value, and false, when there is none. */
    template <class... Result>
    bool ask(Result&... result) {
        send();
        stub_.prepareResponseStream_(true, response_);
        static_cast<void>((response_ >> ... >> result));
        if (response_.hasUnmarshallingFailed())
            response_.printUnmarshallError(cc_, mc_);
        return !response_.hasUnmarshallingFailed();
    }

private:
    TreflectObjectStub const& stub_;
    StubInUse const inUse_;
    unsigned int const cc_;
    unsigned int const mc_;
    TipprmiStream request_;
    TipprmiStream response_;
};

TreflectServerObject* TreflectObjectStub::reflectiveServer() const {
    TipprmiObjectSkeleton const* const server = getServer();
    return server ? server->reflective() : nullptr;
}

// ---- Classes -----------------------------------------------------------------------------------

/** A class that this process does not know may be learned of the object's process. */
TreflectMetaObject const* TreflectObjectStub::classOf(unsigned int id) const {
    InterfaceRepository const& repository = *InterfaceRepository::instance();
    TreflectMetaObject const* found = nullptr;
    if (TreflectMetaClass::learns() && !getServer()) {
        handlerthreads::trustPermission();
        found = repository.findInterface_(id);
        if (!found)
            found = Learning::instance().find(id, orbId_);
    }
    return found ? found : repository.findInterface(id);
}

TreflectMetaObject const* TreflectObjectStub::meta() const {
    metaCache_ = nullptr;
    TreflectMetaObject const* found = nullptr;
    if (isConnected()) {
        StubInUse const inUse(*this);
        TipprmiSequence<unsigned int, 0u> ids;
        if (TreflectServerObject const* const server = reflectiveServer())
            ids = server->getClassIds();
        else
            Question(*this, standard::kGetClassIds).ask(ids);
        for (unsigned int i = 0; !found && i < ids.getLength(); ++i)
            found = classOf(ids[i]);
        metaCache_ = found;
    }
    if (!found)
        REFLECTORB_LOG(
            3, kSource,
            "TreflectObjectStub::meta() - did not find any meta information, returning NULL");
    return found;
}

// ---- The tree of names -------------------------------------------------------------------------

std::string TreflectObjectStub::getAbsName() const {
    if (TreflectServerObject const* const server = reflectiveServer())
        return server->getAbsName();
    std::string name;
    Question(*this, standard::kGetAbsName).ask(name);
    return name;
}

std::string TreflectObjectStub::getRelName() const {
    if (TreflectServerObject const* const server = reflectiveServer())
        return server->getRelName();
    std::string name;
    Question(*this, standard::kGetRelName).ask(name);
    return name;
}

TreflectObject TreflectObjectStub::getParent() const {
    if (TreflectServerObject const* const server = reflectiveServer())
        return server->getParent();
    TreflectObject parent;
    Question(*this, standard::kGetParent).ask(parent);
    return parent;
}

TreflectObject TreflectObjectStub::getChild(std::string const& name) const {
    if (TreflectServerObject const* const server = reflectiveServer())
        return server->getChild(name);
    TreflectObject child;
    Question question(*this, standard::kGetChild);
    question.request() << name;
    question.ask(child);
    return child;
}

TipprmiSequence<TreflectObject, 0u> TreflectObjectStub::getChilds() const {
    if (TreflectServerObject const* const server = reflectiveServer())
        return server->getChilds();
    TipprmiSequence<TreflectObject, 0u> children;
    Question(*this, standard::kGetChilds).ask(children);
    return children;
}

void TreflectObjectStub::registerChild(std::string const& name, TreflectObject const& child) const {
    if (TreflectServerObject* const server = reflectiveServer()) {
        server->registerChild(name, child);
        return;
    }
    Question question(*this, standard::kRegisterChild);
    question.request() << name << child;
    question.send();
}

void TreflectObjectStub::unregisterChild(std::string const& name) const {
    if (TreflectServerObject* const server = reflectiveServer()) {
        server->unregisterChild(name);
        return;
    }
    Question question(*this, standard::kUnregisterChild);
    question.request() << name;
    question.send();
}

// ---- Observers ---------------------------------------------------------------------------------

void TreflectObjectStub::registerObserver(unsigned int kind, TreflectMetaOperation const* operation,
                                          TreflectObserver* observer) const {
    static_cast<void>(observe(kind, operation, observer));
}

bool TreflectObjectStub::observe(unsigned int kind, TreflectMetaOperation const* operation,
                                 TreflectObserver* observer) const {
    if (!operation || !operation->containingMetaObject() || !observer) {
        REFLECTORB_LOG(
            3, kSource,
            "TreflectObjectStub::registerObserver FAILED: oper, oper->meta() or obs is NULL");
        return false;
    }
    unsigned int const cc = operation->containingMetaObject()->getClassId();
    auto const mc = static_cast<unsigned int>(operation->id());
    TreflectObserverClient const client(*observer->getClient());
    if (TreflectServerObject* const server = reflectiveServer()) {
        server->registerObserver(kind, cc, mc, client);
        return true;
    }
    Question question(*this, standard::kRegisterObserver);
    question.request() << kind << cc << mc << client;
    return question.ask();
}

bool TreflectObjectStub::registerGuard(TreflectMetaOperation const* operation,
                                       TreflectObserver* observer) const {
    if (!operation || !operation->containingMetaObject() || !observer)
        return false;
    unsigned int const cc = operation->containingMetaObject()->getClassId();
    auto const mc = static_cast<unsigned int>(operation->id());
    TreflectObserverClient const client(*observer->getClient());
    if (TreflectServerObject* const server = reflectiveServer()) {
        server->registerGuard(cc, mc, client);
        return true;
    }
    bool registered = false;
    Question question(*this, standard::guards::kRegister, standard::guards::kClass);
    question.request() << cc << mc << client;
    question.ask(registered);
    return registered;
}

unsigned int TreflectObjectStub::removeLostGuards(TreflectMetaOperation const* operation) const {
    if (!operation || !operation->containingMetaObject())
        return 0;
    unsigned int const cc = operation->containingMetaObject()->getClassId();
    auto const mc = static_cast<unsigned int>(operation->id());
    if (TreflectServerObject* const server = reflectiveServer())
        return server->removeLostGuards(cc, mc);
    unsigned int count = 0;
    Question question(*this, standard::guards::kRemoveLost, standard::guards::kClass);
    question.request() << cc << mc;
    question.ask(count);
    return count;
}

void TreflectObjectStub::removeObserver(TreflectMetaOperation const*,
                                        TreflectObserver* observer) const {
    if (!observer) {
        REFLECTORB_LOG(3, kSource, "TreflectObjectStub::removeObserver FAILED: observer is NULL");
        return;
    }
    TreflectObserverClient const client(*observer->getClient());
    if (TreflectServerObject* const server = reflectiveServer()) {
        server->unRegisterObserver(client);
        return;
    }
    Question question(*this, standard::kRemoveObserver);
    question.request() << client;
    question.ask();
}
