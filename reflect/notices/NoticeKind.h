#pragma once

/** What a notice tells of an object. */
enum class NoticeKind { Creation, Deletion };
