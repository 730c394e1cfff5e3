#pragma once

/** What the payload of a call begins with: the length of its stream, then the header of the call,
 * of four words: internal object id, whether a response is awaited, class code, method code. */
namespace callheader {

constexpr unsigned int kStreamLengthSize = 4;
constexpr unsigned int kSize = 16;
/** Both together. */
constexpr unsigned int kEnd = kStreamLengthSize + kSize;

// Offsets in the payload
constexpr unsigned int kObject = kStreamLengthSize;
constexpr unsigned int kTransaction = kObject + 4;
constexpr unsigned int kClassCode = kTransaction + 4;
constexpr unsigned int kMethodCode = kClassCode + 4;

}  // namespace callheader
