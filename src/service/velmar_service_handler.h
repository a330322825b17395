#pragma once

#include <string>

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

// The lines that a sender logs around its exchange with the modem.
struct ExchangeLines {
    const char* sending;
    const char* succeeded;
    const char* failed;
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

    // Handles one request of the modem and sends its response. Returns what the request's handler
    // returns, kStatusInvalid for a message that is not a request, kStatusUnsupported for a payload
    // without a handler, to which nothing is sent. IO thread only.
    int OnReceiveRequest(SitMessage* message);

    // Handles one indication of the modem. Returns what the indication's handler returns,
    // kStatusInvalid for a message that is not an indication, kStatusUnsupported for a payload
    // without a handler. IO thread only.
    int OnReceiveIndication(SitMessage* message);

    // Carries out a VelmarServiceCommand to its end. Returns what the command returns,
    // kStatusInvalid for an unknown number. Any thread but the IO thread.
    int SendServiceRequest(unsigned int command);

    // Passes the modem's temperature readings to the thermal driver and sends the response. Returns
    // kStatusInvalid, with nothing sent, for any other payload, else the status of sending the
    // response. IO thread only.
    int OnReceiveModemTemperatureRequest(SitMessage* request);

    // Stores one chunk of a file and sends the response. Returns kStatusInvalid, with nothing sent,
    // for a malformed request; kStatusNotFound when the chunk could not be stored, as the response
    // says; else the status of sending the response. IO thread only.
    int OnReceiveFileWriteRequest(SitMessage* request);

    // Stores one chunk of a file. Returns kStatusSuccess, kStatusInvalid for a malformed
    // indication, kStatusNotFound when the chunk could not be stored. IO thread only.
    int OnReceiveFileWriteIndication(SitMessage* indication);

    // Reads or sets a system property and sends the response. Returns kStatusInvalid, with nothing
    // sent, for any other payload, else the status of sending the response. IO thread only.
    int OnReceivePropertyRequest(SitMessage* request);

    // Asks the modem for a statistics report. Returns kStatusSuccess when the modem responded,
    // whatever it said, kStatusOffline when it is not online, else the status of sending the
    // request. Any thread but the IO thread.
    int SendModemStatReportRequest();

    // Asks the modem to keep statistics for `module`; a negative `value` or a `type` of 0 leaves
    // the field unset. Returns kStatusSuccess, kStatusRefused when the modem refused,
    // kStatusOffline when it is not online, else the status of sending the request. Any thread but
    // the IO thread.
    int SendModemStatEnableRequest(const std::string& module, int value, unsigned int type);

    // Writes a piece of a statistics report to the dump file. Returns kStatusSuccess, whether or
    // not the file could be opened, or kStatusInvalid for any other message and for a report
    // without data. IO thread only.
    int OnReceiveModemStatReportIndication(SitMessage* message);

    // Asks the modem for the statistics that the configuration names, entry by entry. Returns
    // kStatusSuccess, or kStatusNotFound when there is no configuration that can be read. Any
    // thread but the IO thread.
    int LoadDebugStatConfig();

    // Asks the modem for what one entry of the configuration says, cutting it up in place. Any
    // thread but the IO thread.
    void LoadDebugStatModuleConfig(char* entry);

    // Asks the modem for the extended logs. Returns as SendModemStatEnableRequest does. Any thread
    // but the IO thread.
    int SendExtendedLogRequest();

    // Appends text to an extended log file. Returns kStatusSuccess, kStatusInvalid for any other
    // message, kStatusNotFound when the file cannot be opened. IO thread only.
    int OnReceiveExtendedLogIndication(SitMessage* message);

    // Asks the modem for the log lines that the configuration names, name by name. Returns
    // kStatusSuccess, also without a configuration, or kStatusOffline when the modem is not online.
    // Any thread but the IO thread.
    int SendUserspaceLogEnableRequest();

    // Asks the modem for the log lines of one name. Returns kStatusSuccess, kStatusRefused when the
    // modem refused, else the status of sending the request. Any thread but the IO thread.
    int SendUserspaceLogEnableRequestMessage(const std::string& name);

    // Logs one line of the modem. Returns kStatusSuccess, or kStatusInvalid for any other message.
    // IO thread only.
    int OnReceiveUserspaceLogIndication(SitMessage* message);

  protected:
    VelmarMessageHandler* message_handler;

  private:
    // Whether the modem is online; logs when it is not.
    bool CheckModemOnline();

    // Sends a request and waits for its response. Returns kStatusSuccess, kStatusRefused when the
    // modem refused, else the status of sending the request.
    int ExchangeRequest(SitMessage* request, const ExchangeLines& lines);
};
