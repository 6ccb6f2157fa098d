#pragma once
// The add-in's log: one line per message on standard error, in the form
//   YYYY-MM-DD HH:MM:SS.mmm VelmoraAddin[pid:tid] text
// so that the user journal keeps it when the add-in runs as a user service.
// Usable from every library (no Qt); there are no levels.

namespace velmora {

// printf-style; a trailing newline in the text is not needed (one is added).
void Log(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The opt-in request log (VELMORA_REQUEST_LOG set to anything but "" or "0"):
// one line per request and per refused connection, beside the lines above.
// Off by default, so that the add-in's own lines stay the only ones.
bool RequestLogEnabled();

}  // namespace velmora
