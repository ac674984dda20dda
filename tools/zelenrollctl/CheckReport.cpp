#include "CheckReport.h"

#include <cstdio>
#include <iostream>

#include "JsonObjectOutput.h"

namespace {

const char* level_name(CheckReport::Level level) {
    switch (level) {
        case CheckReport::OK:
            return "ok";
        case CheckReport::WARNING:
            return "warning";
        case CheckReport::ERROR:
            return "error";
    }
    return "?";
}

}  // namespace

void CheckReport::add(const std::string& name, Level level, const std::string& found,
                      const std::string& fix) {
    entries.push_back(Result{name, level, found, fix});
}

void CheckReport::ok(const std::string& name, const std::string& found) {
    add(name, OK, found, "");
}

void CheckReport::warning(const std::string& name, const std::string& found,
                          const std::string& fix) {
    add(name, WARNING, found, fix);
}

void CheckReport::error(const std::string& name, const std::string& found, const std::string& fix) {
    add(name, ERROR, found, fix);
}

unsigned CheckReport::count(Level level) const {
    unsigned n = 0;
    for (const Result& result : entries)
        n += result.level == level;
    return n;
}

void CheckReport::print_text() const {
    for (const Result& result : entries) {
        std::printf("%-7s %-12s %s%s%s\n", level_name(result.level), result.name.c_str(),
                    result.found.c_str(), result.fix.empty() ? "" : "; fix: ", result.fix.c_str());
    }
}

void CheckReport::print_json() const {
    JsonObjectOutput out;
    out.addArrayProperty("checks");
    for (const Result& result : entries) {
        out.addObjectArrayElement();
        out.addProperty("check", result.name.c_str());
        out.addProperty("result", level_name(result.level));
        out.addProperty("found", result.found.c_str());
        if (!result.fix.empty())
            out.addProperty("fix", result.fix.c_str());
        out.finishObjectArrayElement();
    }
    out.finishArrayProperty();
    out.setMemberName("warnings");
    out.addValue(static_cast<long>(count(WARNING)));
    out.setMemberName("errors");
    out.addValue(static_cast<long>(count(ERROR)));
    std::cout << out.finish() << "\n";
}
