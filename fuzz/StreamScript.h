#pragma once

/**
 * An input of the stream target: the number of steps, one byte each, then the payload of an arrived
 * message, which begins with the number of its data bytes.
 */
namespace fuzz {

enum Step : unsigned char {
    kReadNumber,
    kReadBool,
    kReadNamespace,
    kReadCharacters,
    kReadString,
    kReadNested,
    kReadTerminationId,
    kReadOid,
    kReadAny,
    kReadNumbers,
    kReadAnys,
    kReadContainer,
    kSkip,
    kRewind,
    kClear,
    kCopy,
    kWriteNumber,
    kWriteOwnBytes,
    kWriteNestedSelf,
    kSetOwnBytes,
    kWriteBackAll,
    kSteps
};

}  // namespace fuzz
