#pragma once

#include <google/protobuf/stubs/strutil.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

// Ends the process with a finding: libFuzzer keeps the input.
[[noreturn]] inline void FailFuzzing(const std::string& text) {
    (void)fprintf(stderr, "FINDING: %s\n", google::protobuf::CEscape(text).c_str());
    abort();
}
