#include "platform/transport/local/SharedMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Transport {
namespace {

// Since Linux 5.1; C libraries define it since about then.
#ifdef F_SEAL_FUTURE_WRITE
constexpr int kSealFutureWrite = F_SEAL_FUTURE_WRITE;
#else
constexpr int kSealFutureWrite = 0x0010;
#endif

}  // namespace

Mapping::~Mapping() {
    if (address_ != nullptr)
        ::munmap(address_, size_);
}

Mapping Mapping::of(int fd, std::size_t offset, std::size_t size, Access access) {
    Mapping mapping;
    int const protection = access == Access::ReadWrite ? PROT_READ | PROT_WRITE : PROT_READ;
    void* address = ::mmap(nullptr, size, protection, MAP_SHARED, fd, static_cast<off_t>(offset));
    if (address != MAP_FAILED) {
        mapping.address_ = address;
        mapping.size_ = size;
    }
    return mapping;
}

Descriptor makeSealedFile(std::size_t size) {
    Descriptor file(::memfd_create("reflectorb", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!file.valid() || ::ftruncate(file.get(), static_cast<off_t>(size)) != 0 ||
        ::fcntl(file.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) != 0)
        return {};
    return file;
}

void sealWriting(int fd) {
    if (::fcntl(fd, F_ADD_SEALS, kSealFutureWrite | F_SEAL_SEAL) != 0)
        ::fcntl(fd, F_ADD_SEALS, F_SEAL_SEAL);
}

bool isSealedFile(int fd, std::size_t size) {
    constexpr int kNeeded = F_SEAL_SHRINK | F_SEAL_GROW;
    int const seals = ::fcntl(fd, F_GET_SEALS);
    struct stat status {};
    return seals >= 0 && (seals & kNeeded) == kNeeded && ::fstat(fd, &status) == 0 &&
           status.st_size == static_cast<off_t>(size);
}

}  // namespace Transport
