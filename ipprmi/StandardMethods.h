#pragma once

/** Method codes that objects serve by themselves; their class code is 0. */
namespace standard {

constexpr unsigned int kClass = 0;

// Every object.
constexpr unsigned int kSetExceptionContainer = 2100;
constexpr unsigned int kGetExceptionContainer = 2101;

// Every reflective object.
constexpr unsigned int kRegisterObserver = 1000;
constexpr unsigned int kRemoveObserver = 1001;
constexpr unsigned int kGetAbsName = 1100;
constexpr unsigned int kGetRelName = 1101;
constexpr unsigned int kGetParent = 1103;
constexpr unsigned int kGetChild = 1104;
constexpr unsigned int kGetChilds = 1105;
constexpr unsigned int kRegisterChild = 1106;
constexpr unsigned int kUnregisterChild = 1107;
constexpr unsigned int kGetClassIds = 1108;

/** What every reflective object serves for guards has a class code of its own: objects of earlier
 * versions serve none of it. */
namespace guards {
constexpr unsigned int kClass = 0x641E8FCE;
constexpr unsigned int kRegister = 1050;
constexpr unsigned int kRemoveLost = 1051;
}  // namespace guards

}  // namespace standard
