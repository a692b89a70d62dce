#include "session.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "report.h"
#include "script.h"
#include "text_format.h"
#include "trace.h"
#include "value_format.h"

namespace zdepcall {

namespace {

constexpr size_t largest_request_body = 4096; // that the agent host accepts
constexpr size_t header_size = 16;

double microseconds_since(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

struct Outcome {
    Reply reply;
    double microseconds = 0;
};

Bytes make_request(const Call &call, const Options &options) {
    Bytes request = encode_request(call);
    const size_t body_size = request.size() - header_size;
    if (!options.agent.in_process && body_size > largest_request_body)
        throw UsageError("the request has " + std::to_string(body_size) +
                         " bytes, the agent accepts " + std::to_string(largest_request_body) +
                         " (shorten the values, or use --in-process)");
    return request;
}

Outcome exchange(Agent &agent, const Call &call, const Bytes &request, bool trace) {
    if (trace)
        trace_message(stderr, "request", request);
    const Clock::time_point start = Clock::now();
    const Bytes message = agent.exchange(request);
    const double microseconds = microseconds_since(start);
    if (trace)
        trace_message(stderr, "reply", message);
    try {
        return {decode_reply(message, call), microseconds};
    } catch (const MalformedMessage &error) {
        agent.give_up(std::string("its reply cannot be read: ") + error.what());
    }
}

void print_errors(FILE *stream, const Reply &reply, const std::string &start) {
    for (const ErrorEntry &error : reply.errors)
        std::fprintf(stream, "%s%s\n", start.c_str(), format_error(error).c_str());
    if (reply.errors.empty())
        std::fprintf(stream, "%san error that the agent did not describe (see its log: --home)\n",
                     start.c_str());
}

void print_json(const Call &call, const Outcome &outcome, const std::optional<Summary> &summary) {
    std::puts(json_report(call, &outcome.reply, "", outcome.microseconds, summary).c_str());
}

int print_death(const AgentDied &death, const Call *call, bool json) {
    if (json && call != nullptr)
        std::puts(json_report(*call, nullptr, death.what(), 0, std::nullopt).c_str());
    std::fflush(stdout);
    std::fprintf(stderr, "zdepcall: %s\n%s", death.what(), death.details.c_str());
    return STATUS_DIED;
}

// A line on the terminal that says how far the calls are.
class Progress {
  public:
    explicit Progress(size_t calls) : calls_(calls), shown_(calls > 1 && isatty(STDERR_FILENO)) {}
    ~Progress() {
        if (drawn_)
            std::fputs("\r\033[K", stderr);
    }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void update(size_t done) {
        constexpr auto interval = std::chrono::milliseconds(100);
        if (!shown_ || Clock::now() - last_ < interval)
            return;
        last_ = Clock::now();
        drawn_ = true;
        std::fprintf(stderr, "\r%zu of %zu calls", done, calls_);
    }

  private:
    size_t calls_;
    bool shown_;
    bool drawn_ = false;
    Clock::time_point last_ = Clock::now();
};

// Makes the call as often as asked, up to the first error reply; the outcome is the first one, or
// the error.
Outcome repeat_call(Agent &agent, const Options &options, const Bytes &request,
                    std::optional<Summary> &summary) {
    std::vector<double> times;
    times.reserve(options.repeat);
    Progress progress(options.repeat);
    const Clock::time_point start = Clock::now();
    Outcome first = exchange(agent, options.call, request, options.trace);
    times.push_back(first.microseconds);
    while (times.size() < options.repeat && !first.reply.is_error) {
        Outcome next = exchange(agent, options.call, request, options.trace);
        times.push_back(next.microseconds);
        if (next.reply.is_error)
            first = std::move(next);
        progress.update(times.size());
    }
    if (options.repeat > 1)
        summary = summarize(times, microseconds_since(start));
    return first;
}

void print_outcome(const Options &options, const Outcome &outcome,
                   const std::optional<Summary> &summary) {
    if (options.json) {
        print_json(options.call, outcome, summary);
        return;
    }
    if (!outcome.reply.is_error)
        print_values(stdout, options.call, outcome.reply, "");
    if (options.time)
        std::printf("time: %.1f us\n", outcome.microseconds);
    if (summary)
        std::puts(format_summary(*summary).c_str());
    std::fflush(stdout);
    if (outcome.reply.is_error)
        print_errors(stderr, outcome.reply, "zdepcall: ");
}

// The lines of a script, waited for so that a signal ends the wait.
class LineReader {
  public:
    explicit LineReader(const std::string &path) : name_(path == "-" ? "standard input" : path) {
        file_.set(path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (file_.get() < 0)
            throw UsageError(path + ": " + std::strerror(errno));
        fcntl(file_.get(), F_SETFD, FD_CLOEXEC);
    }

    // Nothing at the end of the file.
    std::optional<std::string> next() {
        size_t end;
        while ((end = buffered_.find('\n')) == std::string::npos && !at_end_)
            fill();
        if (end == std::string::npos && buffered_.empty())
            return std::nullopt;
        number_++;
        std::string line = buffered_.substr(0, end);
        buffered_.erase(0, end == std::string::npos ? end : end + 1);
        if (line.ends_with('\r'))
            line.pop_back();
        return line;
    }

    // For complaints: "calls.txt:3".
    std::string place() const { return name_ + ":" + std::to_string(number_); }

  private:
    void fill() {
        pollfd stream = {file_.get(), POLLIN, 0};
        wait_for({&stream, 1}, std::nullopt);
        char bytes[4096];
        const ssize_t count = read(file_.get(), bytes, sizeof bytes);
        if (count < 0 && errno != EINTR && errno != EAGAIN)
            throw UsageError(name_ + ": " + std::strerror(errno));
        if (count > 0)
            buffered_.append(bytes, static_cast<size_t>(count));
        at_end_ = count == 0;
    }

    std::string name_;
    Descriptor file_;
    std::string buffered_;
    bool at_end_ = false;
    size_t number_ = 0;
};

class ScriptRun {
  public:
    explicit ScriptRun(const Options &options)
        : options_(options), lines_(*options.script), agent_(options.agent) {
        if (options_.echo)
            std::printf("# agent: process %d, ready after %.1f ms\n",
                        static_cast<int>(agent_.process_id()), agent_.start_time().count() * 1e3);
    }

    int run() {
        try {
            while (const std::optional<std::string> line = lines_.next())
                run_line(*line);
            current_ = nullptr;
            agent_.finish();
        } catch (const AgentDied &death) {
            return print_death(death, current_, options_.json);
        }
        return status_;
    }

  private:
    void run_line(const std::string &line) {
        if (options_.echo)
            std::printf("%s\n", line.c_str());
        std::fflush(stdout);
        Call call;
        Bytes request;
        try {
            const std::vector<std::string> words = split_words(line);
            if (words.empty())
                return;
            call = parse_call(words);
            request = make_request(call, options_);
        } catch (const UsageError &error) {
            throw UsageError(lines_.place() + ": " + error.what());
        }
        current_ = &call;
        print(call, exchange(agent_, call, request, options_.trace));
        current_ = nullptr;
    }

    void print(const Call &call, const Outcome &outcome) {
        if (outcome.reply.is_error)
            status_ = STATUS_ERROR;
        const std::string indent = options_.echo ? "  " : "";
        if (options_.json)
            print_json(call, outcome, std::nullopt);
        else if (outcome.reply.is_error)
            print_errors(stdout, outcome.reply, indent + "error: ");
        else if (call.output_count() == 0 && outcome.reply.dbms_output.empty())
            std::printf("%sdone\n", indent.c_str());
        else
            print_values(stdout, call, outcome.reply, indent);
        if (options_.time && !options_.json)
            std::printf("%stime: %.1f us\n", indent.c_str(), outcome.microseconds);
        std::fflush(stdout);
    }

    const Options &options_;
    LineReader lines_;
    Agent agent_;
    const Call *current_ = nullptr;
    int status_ = STATUS_OK;
};

} // namespace

int run_one_call(const Options &options) {
    try {
        const Bytes request = make_request(options.call, options);
        Agent agent(options.agent);
        std::optional<Summary> summary;
        const Outcome outcome = repeat_call(agent, options, request, summary);
        print_outcome(options, outcome, summary);
        agent.finish();
        return outcome.reply.is_error ? STATUS_ERROR : STATUS_OK;
    } catch (const AgentDied &death) {
        return print_death(death, &options.call, options.json);
    }
}

int run_script(const Options &options) {
    try {
        return ScriptRun(options).run();
    } catch (const AgentDied &death) { // it did not even start
        return print_death(death, nullptr, options.json);
    }
}

} // namespace zdepcall
