#pragma once

#include <string>

#include "fuzz_phone.h"
#include "service_model.h"

// The service and its model side by side, from the phone's boot on: every difference ends the
// process. Leaves the phone as after boot.
class CheckedService {
  public:
    CheckedService();
    // Compares what is left behind: files, and responses that were stored for their requests.
    ~CheckedService();

    CheckedService(const CheckedService&) = delete;
    CheckedService& operator=(const CheckedService&) = delete;

    // Hands over one message and compares what is returned and answered.
    void Receive(const std::string& bytes);

  private:
    FuzzPhone& phone;
    ServiceModel model;
};
