#pragma once

// Sends the phone's GNSS coexistence configuration to the radio: request 227 with the first line,
// then request 226 for each entry. A line that is no entry is logged and skipped; the radio's
// responses are not looked at. Returns kStatusSuccess, or kStatusNotFound when there is no radio
// client or no configuration that can be read. A number that cannot be converted throws; the
// requests before it have been sent. Blocks for up to 5 seconds for each request without a
// response, and for one to two minutes for each that finds the radio not available. Called by the
// thread that runs the service command.
int LoadGnssCoexConfig();
