#include "report.h"

#include <cstdarg>

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

std::string json_member(const char *name, const std::string &value) {
    return json_string(name) + ":" + value;
}

std::string json_typed_value(const NativeType &type, const Bytes &value) {
    return json_member("type", json_string(type.name)) + "," +
           json_member("value", json_value(type, value)) + "," +
           json_member("hex", json_string(to_hex(value)));
}

std::string json_error(const ErrorEntry &error) {
    return "{" + json_member("code", std::to_string(error.code)) + "," +
           json_member("name", json_string(error.name)) + "," +
           json_member("sqlstate", json_string(error.sqlstate)) + "," +
           json_member("text", json_string(error.text)) + "," +
           json_member("file", json_string(error.file)) + "," +
           json_member("line", std::to_string(error.line)) + "," +
           json_member("function", json_string(error.function)) + "}";
}

std::string json_reply(const Call &call, const Reply &reply) {
    std::string outputs;
    std::string text = "," + json_member("status", reply.is_error ? "\"error\"" : "\"ok\"");
    size_t at = 0;
    if (call.returns.type != nullptr && !reply.is_error)
        text +=
            "," + json_member("return",
                              "{" + json_typed_value(*call.returns.type, reply.values[at++]) + "}");
    for (size_t number = 1; number <= call.arguments.size() && !reply.is_error; number++) {
        const Argument &argument = call.arguments[number - 1];
        if (argument.is_output())
            outputs += (outputs.empty() ? "{" : ",{") +
                       json_member("argument", std::to_string(number)) + "," +
                       json_typed_value(*argument.type, reply.values[at++]) + "}";
    }
    text += "," + json_member("outputs", "[" + outputs + "]");
    std::string errors;
    for (const ErrorEntry &error : reply.errors)
        errors += (errors.empty() ? "" : ",") + json_error(error);
    text += "," + json_member("errors", "[" + errors + "]");
    return text + "," + json_member("dbms_output", json_string(reply.dbms_output));
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
    std::string text = "{" + json_member("library", json_string(call.library)) + "," +
                       json_member("function", json_string(call.function));
    if (reply == nullptr)
        return text + "," + json_member("status", "\"died\"") + "," +
               json_member("reason", json_string(death)) + "}";
    text += json_reply(call, *reply);
    text += "," + json_member("microseconds", formatted("%.1f", microseconds));
    if (summary) {
        text += "," + json_member("repeat",
                                  "{" + json_member("calls", std::to_string(summary->calls)) + "," +
                                      json_member("p50", formatted("%.1f", summary->p50)) + "," +
                                      json_member("p99", formatted("%.1f", summary->p99)) + "," +
                                      json_member("max", formatted("%.1f", summary->max)) + "," +
                                      json_member("calls_per_second",
                                                  formatted("%.0f", summary->calls_per_second)) +
                                      "}");
    }
    return text + "}";
}

} // namespace zdepcall
