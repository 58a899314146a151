// The call stack of a stuck thread, as text.
#pragma once

#include <wx/string.h>
#include <wx/thread.h>

/// Loads what CaptureThreadStack needs. Call it before the thread can get stuck.
void PrepareStackDump();

/// The thread's call stack, a line for each frame, the innermost first; 200 frames at most. The thread is paused while
/// its addresses are read, for some seconds at most: then it is resumed whatever the walk waits for, and the text may
/// be wrong or empty. Names come from the modules and from symbol files beside them. Not for the calling thread.
/// @return an empty text if nothing could be captured.
wxString CaptureThreadStack(wxThread *thread);
