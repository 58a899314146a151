// The start of a test program: initialises wxWidgets, and lets nothing open a window.
#include <gtest/gtest.h>
#include <wx/init.h>
#include <wx/string.h>

#include <windows.h>

#include "CodePage.h"
#include "OwnMachine.h"

namespace {

/// A wxWidgets assertion fails the test in which it happens; wx's own handler would show a window.
void OnWxAssert(const wxString &file, int line, const wxString &function, const wxString &condition,
                const wxString &message) {
    ADD_FAILURE_AT(file.utf8_str(), line)
        << "wxWidgets asserts in " << function.utf8_str() << ": " << condition.utf8_str() << " " << message.utf8_str();
}

}  // namespace

int main(int argc, char **argv) {
    // A crash ends the program without a window, which nobody would be there to close.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    testing::InitGoogleTest(&argc, argv);
    LeaveMachineAloneIfAsked();
    const wxInitializer wx;
    if (!wx.IsOk())
        return EXIT_FAILURE;
    wxSetAssertHandler(&OnWxAssert);
    if (!HasExpectedCodePage())
        return EXIT_FAILURE;
    return RUN_ALL_TESTS();
}
