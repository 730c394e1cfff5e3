#pragma once

#include <exception>
#include <string>

#include "oswrap/CancelGuards.h"

/**
 * Runs code of the application, whose errors end here: `report` gets what the log line that ends
 * with "threw" goes on with: a blank and the text of a std::exception, or nothing. True when
 * nothing was thrown. The cancellation of a thread is no error and passes on.
 */
template <class Code, class Report>
bool containErrors(Code const& code, Report const& report) {
    try {
        code();
        return true;
    } catch (std::exception const& error) {
        OSWrap::DisableCancelStateGuard const noCancel;
        report((std::string(" ") + error.what()).c_str());
    } catch (...) {
        if (!std::current_exception())  // not a C++ exception: the thread is being unwound
            throw;
        OSWrap::DisableCancelStateGuard const noCancel;
        report("");
    }
    return false;
}
