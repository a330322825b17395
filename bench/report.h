#pragma once

#include <string>
#include <vector>

namespace velmar_bench {

// The figures of a run, to be printed as one table. One thread.
class Report {
  public:
    // A figure of the service beside that of its baseline, both in what `what` says, and their
    // ratio, by default that of the two. What `wanted` says is printed as it stands.
    void Add(const std::string& what, double product, double baseline, const std::string& wanted);
    void Add(const std::string& what, double product, double baseline, double ratio,
             const std::string& wanted);

    // Appends the figures of another part of the run.
    void Append(const Report& part);

    // Prints the table to standard output.
    void Print() const;

  private:
    std::vector<std::string> lines;
};

// The middle one of `values`, of which there is at least one; `share` 0.99 gives the one that 99 %
// of them do not exceed.
double Quantile(std::vector<double> values, double share = 0.5);

}  // namespace velmar_bench
