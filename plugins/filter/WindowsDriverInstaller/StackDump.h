// Where a stuck thread stands, as text for the log.
#pragma once

#include <wx/string.h>
#include <wx/thread.h>

/// Loads what CaptureThreadStack needs. To be called before the thread can be stuck: a thread that is paused in the
/// loader would keep the one that walks its stack waiting.
void PrepareStackDump();

/// The thread's call stack, a line for each frame, the innermost first; 200 frames at most. The thread is paused for it
/// and goes on afterwards. Not for the calling thread.
/// @return an empty text if nothing could be captured.
wxString CaptureThreadStack(wxThread *thread);
