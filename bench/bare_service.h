#pragma once

namespace velmar_bench {

// What the service is measured against: for a message of the modem, `length` bytes at `data`, does
// nothing but what cannot be left out, in one straight line. It makes the same system calls with
// the same arguments as the service does, logs the same lines, and decodes and encodes the same
// messages, with one exception: a file's chunk is written from where it lies in the message. It
// checks nothing. Responds into `channel`, an open descriptor. One thread.
void HandleBare(int channel, const char* data, int length);

}  // namespace velmar_bench
