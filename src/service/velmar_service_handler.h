#pragma once

#include "message/sit_message.h"

class VelmarMessageHandler;

// Numbers of the service commands: the work that the phone starts.
enum VelmarServiceCommand : unsigned int {
    kCommandModemStatReport = 0,
    kCommandDebugStatConfig = 1,
    kCommandExtendedLog = 2,
    kCommandUserspaceLogEnable = 3,
    kCommandGnssCoexConfig = 4,
};

// Where the service's features meet the message core: takes what the modem asks and tells, and the
// commands of the phone. Holds no state and takes no lock.
//
// Operations return a VelmarStatus. Those that take a message borrow it for the call.
class VelmarServiceHandler {
  public:
    // Sends through `handler`, borrowed.
    explicit VelmarServiceHandler(VelmarMessageHandler* handler);
    virtual ~VelmarServiceHandler();

    VelmarServiceHandler(const VelmarServiceHandler&) = delete;
    VelmarServiceHandler& operator=(const VelmarServiceHandler&) = delete;

    // Handles one request of the modem, its answer included. Returns what the request's handler
    // returns, 2 for what is not a request, 1 for a payload without a handler, which is not
    // answered. IO thread only.
    int OnReceiveRequest(SitMessage* message);

    // Handles one indication of the modem. Returns what the indication's handler returns, 2 for
    // what is not an indication, 1 for a payload without a handler. IO thread only.
    int OnReceiveIndication(SitMessage* message);

    // Carries out a VelmarServiceCommand to its end. Returns what the command returns, 2 for a
    // number that is none. Any thread but the IO thread.
    int SendServiceRequest(unsigned int command);

    // Passes the modem's temperature readings to the thermal driver and answers. Returns 2 for what
    // is no set request, unanswered, else the status of sending the answer. IO thread only.
    int OnReceiveModemTemperatureRequest(SitMessage* request);

    // Stores one chunk of a file and answers. Returns 2 for what is no well-formed request,
    // unanswered; 8 when the chunk could not be stored, as the answer says; else the status of
    // sending the answer. IO thread only.
    int OnReceiveFileWriteRequest(SitMessage* request);

    // Stores one chunk of a file. Returns 0, 2 for what is no well-formed indication, 8 when the
    // chunk could not be stored. IO thread only.
    int OnReceiveFileWriteIndication(SitMessage* indication);

    // Reads or sets a system property and answers. Returns 2 for what is neither, unanswered, else
    // the status of sending the answer. IO thread only.
    int OnReceivePropertyRequest(SitMessage* request);

  protected:
    VelmarMessageHandler* message_handler;
};
