// Anys, the sequences that the library provides, and what responses begin with.
#include "ipprmi/CallHelper.h"
#include "ipprmi/TipprmiAny.h"
#include "ipprmi/TipprmiException.h"
#include "ipprmi/TipprmiSequence.h"

TipprmiStream& TipprmiAny::writable() {
    if (stream_ && stream_->msg().isSoleOwner())
        stream_->clear();
    else
        stream_.emplace(kInitialRoom);
    return *stream_;
}

TipprmiStream& TipprmiAny::readable() {
    if (!stream_)
        stream_.emplace(kInitialRoom);
    stream_->rewind();
    return *stream_;
}

TipprmiStream& operator<<(TipprmiStream& stream, TipprmiAny const& value) {
    if (value.stream_)
        return stream << *value.stream_;
    return stream << 0;
}

void TipprmiAny::read_(TipprmiStream& stream) {
    int const length = stream.readLength();
    // Made before the former content goes, since `stream` may be that. A null pointer, when the
    // bytes are missing, stands for zeros.
    if (length > 0)
        stream_.emplace(TipprmiStream(stream.take(static_cast<unsigned int>(length)), length));
    else
        stream_.reset();
}

TipprmiStream& TipprmiAny::writeBare(TipprmiStream& stream) const {
    if (!stream_)
        return stream;
    bool const incomplete = stream_->hasMarshallingFailed();
    stream.marshall(stream_->getDataPtr(), stream_->getDataSize());
    if (incomplete)
        stream.dropWrite_();
    return stream;
}

bool TipprmiAny::takeBare(TipprmiStream& stream, int n) {
    if (stream.hasUnmarshallingFailed() || n > stream.getUnreadSize())
        return false;
    int const before = stream.optr_;
    bool const taken = setData(n < 1 ? nullptr : stream.take(static_cast<unsigned int>(n)), n);
    if (!taken)
        stream.optr_ = before;
    return taken;
}

bool TipprmiAny::setData(void const* source, int n) {
    if (n < 1) {
        stream_.reset();
        return true;
    }
    // Made before the former content goes, since `source` may point into that.
    TipprmiStream content(source, n);
    if (content.hasMarshallingFailed())
        return false;
    stream_ = content;
    return true;
}

TipprmiStream& operator>>(TipprmiStream& stream, TipprmiAny& value) {
    value.read_(stream);
    return stream;
}

template class TipprmiSequence<unsigned int, 0u>;
template class TipprmiSequence<TipprmiAny, 0u>;
template TipprmiStream& operator<<(TipprmiStream&, TipprmiSequence<unsigned int, 0u> const&);
template TipprmiStream& operator>>(TipprmiStream&, TipprmiSequence<unsigned int, 0u>&);
template TipprmiStream& operator<<(TipprmiStream&, TipprmiSequence<TipprmiAny, 0u> const&);
template TipprmiStream& operator>>(TipprmiStream&, TipprmiSequence<TipprmiAny, 0u>&);
template TipprmiAny& TipprmiAny::insert(TipprmiGeneralException const&);
template TipprmiAny& TipprmiAny::extract(TipprmiGeneralException&);
template void TipprmiExceptionContainer::setExceptionData(TipprmiGeneralException const&);
template void TipprmiExceptionContainer::getExceptionData(TipprmiGeneralException&);

TipprmiStream& operator<<(TipprmiStream& stream, TipprmiGeneralException const& value) {
    return stream << value.code();
}

TipprmiStream& operator>>(TipprmiStream& stream, TipprmiGeneralException& value) {
    unsigned int code = 0;
    stream >> code;
    value.code(code);
    return stream;
}

TipprmiStream& operator<<(TipprmiStream& stream, TipprmiExceptionContainer const& value) {
    return stream << value.type_ << value.data_;
}

TipprmiStream& operator>>(TipprmiStream& stream, TipprmiExceptionContainer& value) {
    return stream >> value.type_ >> value.data_;
}

void writeGeneralException(TipprmiStream& stream, unsigned int code) {
    TipprmiExceptionContainer failure;
    failure.setExceptionType(TipprmiGeneralException::getExceptionClassType());
    failure.setExceptionData(TipprmiGeneralException(code));
    stream << failure;
}

void generateParamSeq(TipprmiSequence<TipprmiAny, 0u>& /*params*/) {}
