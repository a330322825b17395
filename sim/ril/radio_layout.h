#pragma once

// What the stand-in for the radio's client library reads and writes below the folder that
// VELMAR_PHONE_ROOT names: messages of radio.proto in text form.
namespace velmar_radio {

// How the radio behaves: a Radio. Read anew by every call, so replace it by a rename. When it has
// changed, its first response is for the next request. No file is an empty one.
constexpr char kRadioFile[] = "/radio";

// The calls so far, oldest first: a RadioCall a line. Each line is written at once, before the call
// has an effect.
constexpr char kCallsFile[] = "/radio_calls";

// Where a build keeps the library, below the folder of its libraries: "full" has every entry point,
// "without_" with the name of one lacks that. The library's name is the same in each of them.
constexpr char kLibraryFolder[] = "ril";
constexpr char kFullVariant[] = "full";
constexpr char kVariantWithout[] = "without_";

}  // namespace velmar_radio
