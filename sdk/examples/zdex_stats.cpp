// A routine in C++. The agent finds it by its plain name, hence extern "C".
//
// Two rules beyond those of C:
//  - No exception may leave the routine: the frames above it are the agent's and cannot be
//    unwound. Catch everything.
//  - Raising a database error runs no destructors. So the work is done in a function of its own,
//    which returns normally and takes its objects with it, and the outermost function raises when
//    nothing is left to destroy.

#include <algorithm>
#include <cstdio>
#include <exception>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "zdextproc.h"

namespace {

constexpr int bad_list = 20002;

double median_of(const char *list) {
    std::vector<double> values;
    std::istringstream words(list);
    for (std::string word; words >> word;) {
        std::size_t used = 0;
        double value = 0;
        try {
            value = std::stod(word, &used);
        } catch (const std::exception &) {
        }
        if (used != word.size())
            throw std::invalid_argument("'" + word + "' is not a number");
        values.push_back(value);
    }
    if (values.empty())
        throw std::invalid_argument("the list is empty");
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// The median, or an empty message turned into why there is none. Nothing is thrown.
double median_or_message(const char *list, char *message, std::size_t size) noexcept {
    try {
        return median_of(list);
    } catch (const std::exception &error) {
        std::snprintf(message, size, "%s", error.what());
    } catch (...) {
        std::snprintf(message, size, "unknown failure");
    }
    return 0;
}

} // namespace

// The median of the numbers in a blank-separated list.
extern "C" double zdex_median(ExtProcContext *context, const char *list) {
    char message[200] = "";
    const double median = median_or_message(list, message, sizeof message);
    if (message[0] != '\0')
        SQLExtProcDirectRaiseErrorWithMsg(context, bad_list, message);
    return median;
}
