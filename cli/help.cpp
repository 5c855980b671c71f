// SPDX-License-Identifier: Apache-2.0

#include "cli/help.h"

#include <algorithm>

#include "base/visible.h"
#include "cli/failure.h"
#include "cli/line/names.h"
#include "cli/line/parser.h"
#include "cli/output/output.h"
#include "cli/output/terminal.h"
#include "cli/query/plans.h"

namespace l2fibctl {

namespace {

constexpr size_t term_width = 26; // of what a line of a list explains
constexpr size_t line_width = 100;

constexpr char exit_status_text[] = R"(Exit status:
  0  done; also if the reader of a pipe or the pager ended early
  1  nothing found
  2  wrong usage
  3  no connection to the daemon, or no answer from it
  4  the daemon answered with an error
  5  the answer was cut or damaged, or could not be written
  6  the answer may be incomplete: the daemon marked it as limited or degraded
)";

constexpr char filters_text[] = R"(
All given filters must hold. --not FILTER leaves out what the filter alone would show, and may be repeated.

  l2fibctl show mac --domain br0 --vlan 10 --newer-than 5m
  l2fibctl show mac --mac 02:00:5e --not port=eth1 --not port=eth2
  l2fibctl show count --by port --type learned

A domain is named in full (lab:br0.10) or without its group (br0.10); the name of a bridge (br0) means all of its
domains. A port is named by its interface or its xcid. The daemon applies the filters, so only matching items travel.
)";

constexpr char columns_text[] =
    R"(Columns of the tables, by the names of the JSON members. --columns takes them in any order:

  l2fibctl show mac --columns port,mac-address,age

Without --columns a row has the usual ones and fits 100 characters; --wide shows all. On a terminal a name that is
longer than its column loses its middle, unless --wide is given. In a pipe no name is cut.

)";

constexpr char json_text[] =
    R"(--json prints one array of objects, --json-lines one object per line. The members are those of the API, and the
text is plain ASCII. With --columns the objects have these members only. With the exit status 0, 1 or 6, what --json
printed is valid JSON.

  l2fibctl show mac --json-lines | jq -r .port | sort | uniq -c

show mac --bridge-json prints the form of "bridge -j fdb show". show count --by has no row of sums in JSON.
)";

constexpr char terminal_text[] =
    R"(Colours: the type, the age and the state have colours on a terminal, unless NO_COLOR is set. --color always and
--color never decide without regard to both.

Pager: on a terminal, show, find and help go through $L2FIBCTL_PAGER, else $PAGER, else less (with LESS=FRX unless LESS
is set). An empty variable or "cat" means no pager, and so does --no-pager. The exit status stays that of l2fibctl.

Environment: L2FIBD_SOCKET, L2FIBCTL_PAGER, PAGER, LESS, NO_COLOR, TERM.
)";

constexpr char names_text[] =
    R"(Commands and options may be abbreviated as long as the name stays unambiguous; "show m" is show mac. A script should
spell them out: a later version may have more names.

  l2fibctl sh mac --dom br0 -jl 10

Short options combine (-jr), and their values may follow at once (-l10). Options may stand before or behind the command.
Two dashes end the options.

Shells complete names, also those of domains, ports, tunnel end points and addresses that the daemon has:

  source <(l2fibctl completion bash)
)";

// ---- Lists ----

void add_line(std::string &to, const std::string &term, std::string_view explanation)
{
    to.append("  ").append(term).append(term.size() < term_width ? term_width - term.size() : 2, ' ');
    to.append(explanation).append("\n");
}

std::string usage_of(const command_row &row)
{
    const std::string argument(row.argument.name);
    switch (row.arguments) {
    case argument_count::none: return words_of(row);
    case argument_count::required: return words_of(row) + " " + argument;
    default: return words_of(row) + " [" + argument + "]";
    }
}

std::string usage_of(const option_row &row)
{
    const std::string letter = row.letter == '\0' ? "    " : std::string("-") + row.letter + ", ";
    return letter + "--" + std::string(row.name) + (row.is_flag() ? "" : " " + std::string(row.value));
}

// The commands that begin with the word `group`, or all.
std::string commands_of(std::string_view group)
{
    std::string text = "Commands:\n";
    for (const command_row &row : all_commands()) {
        if (!row.is_hidden() && (group.empty() || row.group == group)) {
            add_line(text, usage_of(row), row.help);
        }
    }
    return text
           + "\nl2fibctl COMMAND --help lists the options of a command. Names may be abbreviated: sh mac --dom br0\n";
}

std::string overview()
{
    std::string text =
        "l2fibctl prints the tables of a running l2fibd: MAC addresses, bridge domains, ports, tunnels.\n\n"
        + commands_of("") + "\nTopics of help:\n";
    for (const help_topic &one : all_topics()) {
        add_line(text, std::string(one.name), one.summary);
    }
    return text + "\n" + exit_status_text;
}

// ---- Topics ----

std::string filters_topic()
{
    std::string text = "Filters:\n";
    for (const option_row *row : options_of(command_kind::none)) {
        if (row->group == option_group::filters) {
            add_line(text, usage_of(*row), row->help);
        }
    }
    return text + filters_text;
}

// "  show mac: domain, mac-address, ..." in lines of at most line_width characters.
void add_columns(std::string &to, const std::string &command, const resource &shown)
{
    std::string line = "  " + command + ":";
    for (const column &one : shown.columns) {
        const std::string name = " " + std::string(one.member) + (&one == &shown.columns.back() ? "" : ",");
        if (line.size() + name.size() > line_width) {
            to.append(line).append("\n");
            line = "   ";
        }
        line += name;
    }
    to.append(line).append("\n");
}

std::string columns_topic()
{
    std::string text = columns_text;
    for (const command_row &row : all_commands()) {
        client_options options;
        options.command = row.kind;
        if (const view *shown = find_view(options)) {
            add_columns(text, words_of(row), *shown->shown);
        }
    }
    return text;
}

template <const char *text>
std::string fixed_topic()
{
    return text;
}

constexpr help_topic topics[] = {
    {"filters", "options that select the part of a table", filters_topic},
    {"columns", "names for --columns", columns_topic},
    {"json", "the forms of JSON", fixed_topic<json_text>},
    {"terminal", "colours, pager, environment", fixed_topic<terminal_text>},
    {"names", "abbreviations, short options, completion", fixed_topic<names_text>},
    {"exit-status", "what the exit status says", fixed_topic<exit_status_text>},
};

// ---- Choosing a page ----

[[noreturn]] void fail_unknown_topic(const std::string &word)
{
    std::vector<std::string_view> names;
    for (const help_topic &one : topics) {
        names.push_back(one.name);
    }
    const std::string_view meant = closest(word, names);
    std::string text = "help: no command and no topic \"" + base::visible(word) + "\"";
    text += meant.empty() ? "; \"l2fibctl help\" lists them" : "; did you mean \"" + std::string(meant) + "\"?";
    throw failure(exit_status::wrong_usage, text);
}

const help_topic *find_topic(const std::string &word)
{
    const auto *exact = std::ranges::find(topics, word, &help_topic::name);
    const auto begins = [&](const help_topic &one) { return one.name.starts_with(word); };
    const bool is_unique = std::ranges::count_if(topics, begins) == 1;
    const auto *found = exact == std::end(topics) && is_unique ? std::ranges::find_if(topics, begins) : exact;
    return found != std::end(topics) ? found : nullptr;
}

std::string page_of(const std::vector<std::string> &words)
{
    if (words.empty()) {
        return overview();
    }
    const found_command named = find_command(words);
    if (named.command != nullptr) {
        return help_page(*named.command);
    }
    if (!named.group.empty()) {
        return commands_of(named.group);
    }
    const auto commands = all_commands();
    const auto by_name = std::ranges::find(commands, words.front(), &command_row::name);
    if (words.size() == 1 && by_name != commands.end()) {
        return help_page(*by_name); // "help mac"
    }
    const help_topic *topic = words.size() == 1 ? find_topic(words.front()) : nullptr;
    if (topic == nullptr) {
        fail_unknown_topic(words.back());
    }
    return topic->make();
}

} // namespace

std::span<const help_topic> all_topics()
{
    return topics;
}

void explain(query_session &session)
{
    const std::string page = page_of(session.options.words);
    output out(session.progress_line, false, pager_command(session.options.no_pager));
    out.pending().put(page);
    out.release();
    out.finish();
}

} // namespace l2fibctl
