#include "platform/transport/DelayedLog.h"

#include <cstdarg>
#include <cstdio>

#include "oswrap/OutOfMemory.h"

namespace Transport {
namespace {

constexpr std::size_t kLongestText = 512;

/** The calling thread's outermost one, which collects. */
thread_local DelayedLog* collecting = nullptr;

void emit(int level, int line, char const* source, char const* text) {
    LogMakeString("%s", text);
    LogDispatch(level, line, source);
}

}  // namespace

DelayedLog::DelayedLog() : outermost_(collecting == nullptr) {
    if (outermost_)
        collecting = this;
}

DelayedLog::~DelayedLog() {
    if (!outermost_)
        return;
    collecting = nullptr;
    for (Record const& record : records_)
        emit(record.level, record.line, record.source, record.text.c_str());
}

void DelayedLog::add(int level, int line, char const* source, char const* format, ...) {
    char text[kLongestText];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (collecting == nullptr)
        emit(level, line, source, text);
    else  // without memory for it a record is lost, and not what it tells of
        OSWrap::withMemory([&] { collecting->records_.push_back({level, line, source, text}); });
}

void DelayedLog::addHeldBack(unsigned long count, int level, int line, char const* source) {
    if (count != 0)
        add(level, line, source, "%lu lines like this one were held back", count);
}

}  // namespace Transport
