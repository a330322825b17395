#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bench/contender.h"
#include "bench/report.h"

namespace velmar_bench {

struct Programs {
    // The service, and velmar_bare.
    std::string velmar;
    std::string bare;
};

// Measures the running service beside its baselines, turn by turn. Operations belong to the main
// thread, add their figures to the report, and throw std::runtime_error.
class WholeProcess {
  public:
    // The phones lie in `folder`. `rounds` says how many turns each of the two has.
    WholeProcess(const std::string& folder, const Programs& programs, int rounds, Report* report);

    // From the start of the program to the answer to its first message.
    void MeasureStart();

    // What the running programs do with messages.
    void MeasureRequests();
    void MeasureFile();
    void MeasureBursts();

    void MeasureMemory();
    void MeasureSize(const Programs& programs);

    // How often the threads wake up in `seconds` without any message, with the modem online and
    // offline; in the meantime `work` is done.
    void MeasureWakeUps(int seconds, const std::function<void()>& work);

  private:
    // Does some operations, and adds the time that each took, in microseconds.
    using Work = std::function<void(const Contender&, std::vector<double>*)>;
    struct Samples {
        std::vector<double> wall_us;
        // Processor time of the program an operation, in each round.
        std::vector<double> processor_us;
    };

    Samples Round(const Contender& contender, const Work& work) const;
    std::vector<Samples> TakeTurns(const std::vector<const Contender*>& contenders,
                                   const Work& work) const;
    void MeasureBurst(const std::string& what, const std::string& message, int count);
    void AddMemory(const std::string& when);

    const int rounds;
    Report* const report;
    Contender product;
    Contender bare;
    Contender fixed;
    Contender idle;
    Contender offline;
};

}  // namespace velmar_bench
