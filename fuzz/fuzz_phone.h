#pragma once

#include <string>
#include <vector>

#include "proto/velmar_message.pb.h"

// The process is the whole service, without its threads, in a phone of its own whose modem is
// online. The first call boots it. Its log goes nowhere. One thread.

// The bytes of a request to store a part of a file, which `line` gives as "DIRECTORY OFFSET TOTAL
// NAME DATA". What is missing is 0 or empty.
std::string EncodeChunk(const std::string& line);

// Has the service process `messages`, each the bytes of one, in turn, and requires what has to hold
// whatever they are. Leaves the phone as after boot.
void DeliverToService(const std::vector<std::string>& messages);

// Writes the file `path` of the phone and has the service carry out `command`, which must succeed.
// Gives the requests that it would send.
std::vector<velmar_message::VelmarMessage> RequestsFor(const std::string& path,
                                                       const std::string& content,
                                                       unsigned int command);
