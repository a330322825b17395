#pragma once

// What the operations of the service return. They return it as a plain int.
enum VelmarStatus : int {
    kStatusSuccess = 0,
    // The message has no known type, or a payload that nothing here handles.
    kStatusUnsupported = 1,
    // Null or empty input, a message of the wrong type or payload, or a request without a token.
    kStatusInvalid = 2,
    kStatusOffline = 3,
    // The message could not be encoded.
    kStatusEncodeFailed = 4,
    kStatusTimeout = 5,
    // Writing to the channel failed.
    kStatusWriteFailed = 7,
    // No such request record or file, or a component that is not there.
    kStatusNotFound = 8,
    // The modem's response carries a failure.
    kStatusRefused = 9,
};
