#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "platform/transport/local/Descriptor.h"

namespace Transport {

/** Owns one shared mapping. A resource: moved, not copied. */
class Mapping {
public:
    Mapping() = default;
    Mapping(Mapping&& other) noexcept
        : address_(std::exchange(other.address_, nullptr)), size_(other.size_) {}
    Mapping& operator=(Mapping&& other) noexcept {
        std::swap(address_, other.address_);
        std::swap(size_, other.size_);
        return *this;
    }
    ~Mapping();

    enum class Access { ReadOnly, ReadWrite };
    /** Empty on failure. */
    static Mapping of(int fd, std::size_t offset, std::size_t size, Access access);

    bool valid() const { return address_ != nullptr; }
    unsigned char* data() const { return static_cast<unsigned char*>(address_); }
    std::size_t size() const { return size_; }

private:
    void* address_ = nullptr;
    std::size_t size_ = 0;
};

/** An anonymous memory file of `size` zero bytes whose size is sealed; invalid, with errno, on
 * failure. Seal it against writing as well with `sealWriting` when its maker has mapped it. */
Descriptor makeSealedFile(std::size_t size);
/** From now on nobody can map the file for writing; existing mappings stay. No effect on kernels
 * that do not know this seal. */
void sealWriting(int fd);
/** Whether `fd` is a memory file of exactly `size` bytes whose size nobody can change: reading a
 * mapping of it can then never fault. */
bool isSealedFile(int fd, std::size_t size);

}  // namespace Transport
