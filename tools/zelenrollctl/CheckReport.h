#pragma once

#include <string>
#include <vector>

// The verdicts of `zelenrollctl check`: one line per precondition of enrollment, what was
// found and, for a warning or an error, the fix in one sentence.
class CheckReport {
  public:
    enum Level { OK, WARNING, ERROR };

    struct Result {
        std::string name;
        Level level;
        std::string found;
        std::string fix;
    };

    void ok(const std::string& name, const std::string& found);
    void warning(const std::string& name, const std::string& found, const std::string& fix);
    void error(const std::string& name, const std::string& found, const std::string& fix);

    // "LEVEL   NAME         FOUND[; fix: FIX]", one line per check.
    void print_text() const;
    // {"checks": [{"check", "result", "found"[, "fix"]}...], "warnings": N, "errors": N}
    void print_json() const;
    bool has_error() const { return count(ERROR) > 0; }
    unsigned count(Level level) const;
    const std::vector<Result>& results() const { return entries; }

  private:
    void add(const std::string& name, Level level, const std::string& found,
             const std::string& fix);
    std::vector<Result> entries;
};
