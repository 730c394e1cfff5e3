"""Which words a name in C++ must not be, and how names are made of others."""
import re

_KEYWORDS = frozenset(
    """alignas alignof and and_eq asm auto bitand bitor bool break case catch char char8_t char16_t
    char32_t class compl concept const consteval constexpr constinit const_cast continue co_await
    co_return co_yield decltype default delete do double dynamic_cast else enum explicit export
    extern false float for friend goto if inline int long mutable namespace new noexcept not not_eq
    nullptr operator or or_eq private protected public register reinterpret_cast requires return
    short signed sizeof static static_assert static_cast struct switch template this thread_local
    throw true try typedef typeid typename union unsigned using virtual void volatile wchar_t while
    xor xor_eq""".split()
)

# Namespaces of the library, and macros that its headers and those of the system bring.
_TAKEN = frozenset(
    """std boost OSWrap Transport Logging errno assert stdin stdout stderr NULL EOF linux unix
    major minor signals""".split()
)

# Members that generated classes inherit from the library's: a function of the same name would
# hide or override them. A test compares this with the headers.
INHERITED = frozenset(
    """afterCalls allowedBy announce argument as attribute callWith changed ChangeUnderWay connect dispatch endLife
    errorAttribute errorOperation exceptionContainer forwardMsg getAbsName getChild
    getChilds getClassIds getClient getExceptionContainer getInternalOID getNamespaceId
    getOID getORB getParent getRelName getServer getServerClassId getServerClassIdSeq
    getStub_ hasGuard hasOID identifier internalOid isConnected isObservedAfterCalls isObserver Key Life makeRoomFor Meta meta
    metaClass notifyObservers objectName observations_ ObservedCall Observers oid OnBehalf operation orbId postObserverAvailable
    preObserverAvailable prepareRequestStream_ prepareResponseStream_ readArguments
    reflective registerChild registerGuard registerObserver Registration releaseStub_
    removeLostGuards removeObserver respond respondWithoutObject sendCreationEvent sendCreationEvents sendDeletionEvent
    sendDeletionEvents serve serveBy setExceptionContainer setInternalOID setObserver setOID
    setORB setReflective setStub_ share_ StandardMethod Told unregisterChild
    unRegisterObserver""".split()
)


def escaped(name):
    """A name for C++; the one of the IDL stays in tables and on the wire."""
    return name + "_" if name in _KEYWORDS or name in _TAKEN else name


def member(name):
    """The name of a function of a client class and a skeleton."""
    return name + "_" if name in INHERITED else escaped(name)


def capital(name):
    return name[:1].upper() + name[1:]


def small(name):
    """Lamp becomes lamp, TCPLink tcpLink, CPU cpu."""
    lead = re.match(r"[A-Z]*", name).group()
    if len(lead) > 1 and len(lead) < len(name) and name[len(lead)].islower():
        lead = lead[:-1]
    return lead.lower() + name[len(lead) :]


def constant(name):
    return "k" + capital(name)
