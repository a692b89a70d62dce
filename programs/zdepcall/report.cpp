#include "report.h"

#include <cstdarg>

#include "text_format.h"
#include "value_format.h"

namespace zdepcall {

namespace {

__attribute__((format(printf, 1, 2))) std::string formatted(const char *format, ...) {
    char buffer[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    return buffer;
}

void add_typed_value(JsonObject &object, const NativeType &type, const Bytes &value) {
    object.text("type", type.name)
        .member("value", json_value(type, value))
        .text("hex", to_hex(value));
}

std::string json_error(const ErrorEntry &error) {
    return JsonObject()
        .member("code", std::to_string(error.code))
        .text("name", error.name)
        .text("sqlstate", error.sqlstate)
        .text("text", error.text)
        .text("file", error.file)
        .member("line", std::to_string(error.line))
        .text("function", error.function)
        .str();
}

void add_reply(JsonObject &object, const Call &call, const Reply &reply) {
    object.text("status", reply.is_error ? "error" : "ok");
    size_t at = 0;
    if (call.returns.type != nullptr && !reply.is_error) {
        JsonObject returned;
        add_typed_value(returned, *call.returns.type, reply.values[at++]);
        object.member("return", returned.str());
    }
    std::vector<std::string> outputs;
    for (size_t number = 1; number <= call.arguments.size() && !reply.is_error; number++) {
        const Argument &argument = call.arguments[number - 1];
        if (!argument.is_output())
            continue;
        JsonObject output;
        output.member("argument", std::to_string(number));
        add_typed_value(output, *argument.type, reply.values[at++]);
        outputs.push_back(output.str());
    }
    object.member("outputs", json_array(outputs));
    std::vector<std::string> errors;
    for (const ErrorEntry &error : reply.errors)
        errors.push_back(json_error(error));
    object.member("errors", json_array(errors)).text("dbms_output", reply.dbms_output);
}

} // namespace

std::string format_error(const ErrorEntry &error) {
    return std::to_string(error.code) + " " + (error.name.empty() ? "(no name)" : error.name) +
           " [" + printable(error.sqlstate) + "]: " + printable(error.text) + " (" +
           printable(error.file) + ":" + std::to_string(error.line) + " " +
           printable(error.function) + ")";
}

void print_values(FILE *stream, const Call &call, const Reply &reply, const std::string &indent) {
    if (!reply.dbms_output.empty())
        std::fprintf(stream, "%soutput: %s\n", indent.c_str(), quoted(reply.dbms_output).c_str());
    size_t at = 0;
    if (call.returns.type != nullptr)
        std::fprintf(stream, "%sreturn: %s\n", indent.c_str(),
                     format_value(*call.returns.type, reply.values[at++]).c_str());
    for (size_t number = 1; number <= call.arguments.size(); number++) {
        const Argument &argument = call.arguments[number - 1];
        if (argument.is_output())
            std::fprintf(stream, "%sargument %zu: %s\n", indent.c_str(), number,
                         format_value(*argument.type, reply.values[at++]).c_str());
    }
}

std::string format_summary(const Summary &summary) {
    return formatted("%zu calls: p50 %.1f us, p99 %.1f us, max %.1f us, %.0f calls/s",
                     summary.calls, summary.p50, summary.p99, summary.max,
                     summary.calls_per_second);
}

std::string json_report(const Call &call, const Reply *reply, const std::string &death,
                        double microseconds, const std::optional<Summary> &summary) {
    JsonObject object;
    object.text("library", call.library).text("function", call.function);
    if (reply == nullptr)
        return object.text("status", "died").text("reason", death).str();
    add_reply(object, call, *reply);
    object.member("microseconds", formatted("%.1f", microseconds));
    if (summary)
        object.member("repeat",
                      JsonObject()
                          .member("calls", std::to_string(summary->calls))
                          .member("p50", formatted("%.1f", summary->p50))
                          .member("p99", formatted("%.1f", summary->p99))
                          .member("max", formatted("%.1f", summary->max))
                          .member("calls_per_second", formatted("%.0f", summary->calls_per_second))
                          .str());
    return object.str();
}

} // namespace zdepcall
