#pragma once

// Tag of every line that the service logs.
constexpr char kLogTag[] = "velmar";
