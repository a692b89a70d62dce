// zdtool message: raw messages, field by field.

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "command.h"
#include "message_input.h"
#include "message_printers.h"
#include "option_reader.h"
#include "text_format.h"
#include "usage_error.h"
#include "whole_file.h"

namespace zdtool {

using namespace programs;

namespace {

const char help_text[] =
    R"(Usage: zdtool message [--json] [--hex|--dump] [FILE...]
       zdtool message [--json] --bytes HEX

Print raw messages: the header and every field by name, nested records indented, bytes in
hexadecimal and as text, serialized error stacks error by error. Of a malformed message, print what
can be read, and say at which byte, in which field and why the agent would refuse it.

  FILE          messages, each a header and a body, one behind the other; without FILE, or for -,
                standard input
  --hex         FILE is hexadecimal text; blanks, line ends and | in it are skipped
  --dump        FILE is text with dumps of messages in it, as the library prints them to standard
                error when it refuses a message; the text around them is skipped
  --bytes HEX   take the messages from the command line, as hexadecimal text
  --json        print one JSON object a line for every message
  --help        print this text and exit

Exit status: 0 all messages are well-formed, 1 one is not or there is none, 2 wrong usage or a file
that cannot be read.
)";

enum class Form { RAW, HEX, DUMP };

struct MessageOptions {
    bool help = false;
    bool json = false;
    Form form = Form::RAW;
    std::optional<std::string> bytes;
    std::vector<std::string> files;
};

MessageOptions parse(int argc, char **argv) {
    enum { HEX = OptionReader::FIRST_LONG, DUMP, BYTES, JSON, HELP };
    static constexpr option long_options[] = {
        {"hex", no_argument, nullptr, HEX},           {"dump", no_argument, nullptr, DUMP},
        {"bytes", required_argument, nullptr, BYTES}, {"json", no_argument, nullptr, JSON},
        {"help", no_argument, nullptr, HELP},         {nullptr, 0, nullptr, 0}};
    MessageOptions options;
    bool hex = false;
    bool dump = false;
    OptionReader reader(argc, argv, "", long_options, "try 'zdtool message --help'");
    for (int found = reader.next(); found != OptionReader::END; found = reader.next()) {
        if (found == BYTES)
            options.bytes = reader.value();
        else if (found == OptionReader::OPERAND)
            options.files.emplace_back(reader.value());
        hex = hex || found == HEX;
        dump = dump || found == DUMP;
        options.json = options.json || found == JSON;
        options.help = options.help || found == HELP;
    }
    if (options.help)
        return options;
    if (hex && dump)
        throw UsageError("--hex and --dump: a file is one or the other");
    if (options.bytes && (hex || dump || !options.files.empty()))
        throw UsageError("--bytes: takes the place of files, --hex and --dump");
    options.form = hex ? Form::HEX : dump ? Form::DUMP : Form::RAW;
    if (options.files.empty())
        options.files.emplace_back("-");
    return options;
}

void complain(const std::string &about, const std::string &text) {
    std::fflush(stdout); // so that on a terminal the complaint follows what it is about
    std::fprintf(stderr, "zdtool: %s: %s\n", printable(about).c_str(), text.c_str());
}

// The messages of text, which is called name in complaints; nothing after a complaint.
std::optional<Bytes> messages_of(const std::string &name, const std::string &text, Form form) {
    if (form == Form::DUMP)
        return messages_of_dumps(text);
    size_t wrong = 0;
    std::optional<Bytes> bytes = from_loose_hex(text, &wrong);
    if (form == Form::RAW) {
        if (!bytes || bytes->empty())
            return Bytes(text.begin(), text.end());
        complain(name, "this is hexadecimal text (try --hex)"); // no type begins with such bytes
        return std::nullopt;
    }
    if (!bytes)
        complain(name, wrong == text.size() ? "not hexadecimal: the last digit stands alone"
                                            : "not hexadecimal: " + quoted(text.substr(wrong, 1)) +
                                                  " at byte " + std::to_string(wrong));
    return bytes;
}

bool show(const std::string &name, const std::string &text, Form form, MessagePrinter &printer) {
    const std::optional<Bytes> messages = messages_of(name, text, form);
    if (!messages)
        return false;
    if (messages->empty())
        complain(name, "there is no message");
    bool sound = !messages->empty();
    walk_messages(*messages, printer, [&](const std::string &complaint) {
        complain(name, complaint);
        sound = false;
    });
    return sound;
}

} // namespace

int run_message(int argc, char **argv) {
    const MessageOptions options = parse(argc, argv);
    if (options.help) {
        std::fputs(help_text, stdout);
        return STATUS_OK;
    }
    const std::unique_ptr<MessagePrinter> printer =
        options.json ? new_json_printer(stdout) : new_text_printer(stdout);
    if (options.bytes)
        return show("--bytes", *options.bytes, Form::HEX, *printer) ? STATUS_OK : STATUS_FAULT;
    bool sound = true;
    for (const std::string &file : options.files) {
        const std::string name = shown_path(file);
        if (options.files.size() > 1 && !options.json)
            std::printf("%s==> %s <==\n", &file == &options.files[0] ? "" : "\n", name.c_str());
        sound = show(name, read_whole(file), options.form, *printer) && sound;
    }
    return sound ? STATUS_OK : STATUS_FAULT;
}

} // namespace zdtool
