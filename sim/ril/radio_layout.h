#pragma once

// What the stand-in for the radio's client library reads and writes below the folder that
// VELMAR_PHONE_ROOT names. Both files consist of lines of words with one blank between them.
namespace velmar_radio {

// How the radio behaves. Read anew by every call, so replace it by a rename. No file, or an empty
// one, is a radio that answers every request with 0. The lines, in any order:
//
//   open null                        no client can be opened
//   result NUMBER                    what the calls that return a number return; otherwise 0
//   answer none                      a request that is never answered
//   answer ERROR [early] [twice] [delay=MILLISECONDS]
//                                    a request that is answered with the error code ERROR: on a
//                                    thread of the library's own or, early, on the caller's and
//                                    before its call returns; once or twice in a row; after 20 ms
//                                    unless it says otherwise
//
// The first request takes the first answer line, the second the second, and so on; the last line
// is for all that follow. A file that has changed begins with its first line again.
constexpr char kBehaviourFile[] = "/radio";

// The calls so far, oldest first. Each line is written at once, before the call has an effect:
//
//   TIME RILC_Open
//   TIME RILC_OpenV2 name=NAME
//   TIME RILC_Close client=CLIENT
//   TIME RILC_Reconnect client=CLIENT
//   TIME RILC_RegisterUnsolicitedHandler client=CLIENT handler=set
//   TIME RILC_Send client=CLIENT request=NUMBER extra=NUMBER data=HEX
//   TIME RILC_SetIndicationFilter client=CLIENT filter=NUMBER,NUMBER
//
// TIME is in milliseconds of the steady clock; CLIENT is "open" for a handle that the library gave,
// "null", or "unknown"; a null pointer of any other kind is "null" too.
constexpr char kCallsFile[] = "/radio_calls";

// Where a build keeps the library, below the folder of its libraries: "full" has every entry point,
// "without_" with the name of one lacks that. The library's name is the same in each of them.
constexpr char kLibraryFolder[] = "ril";
constexpr char kFullVariant[] = "full";
constexpr char kVariantWithout[] = "without_";

}  // namespace velmar_radio
