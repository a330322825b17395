#pragma once

#include <stdio.h>
#include <stdlib.h>

#include <string>

// Ends the process with a finding unless `holds`: libFuzzer then keeps the input. `where` names the
// place, such as a path. Any thread.
inline void Require(bool holds, const char* what, const std::string& where = "") {
    if (holds) return;
    (void)fprintf(stderr, "FINDING: %s %s\n", what, where.c_str());
    abort();
}
