#pragma once

// The server's process id as recorded for client runs. Returns the number in the pid file,
// unchecked, or -1 with a log line when there is no file or no number in it. Main thread only.
int velmar_get_pid();

// Records the calling process's id, in place of any recorded before. A failure passes silently.
// Main thread only.
void velmar_write_pid();
