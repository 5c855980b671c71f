// SPDX-License-Identifier: Apache-2.0

#include "cli/completion.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>

#include "base/text.h"
#include "base/visible.h"
#include "cli/failure.h"
#include "cli/help.h"
#include "cli/line/names.h"
#include "cli/output/output.h"
#include "cli/query/plans.h"

namespace l2fibctl {

namespace {

// Bash splits words at colons and equals signs and replaces only what follows the last one.
constexpr char bash_script[] = R"(# Completion of l2fibctl for bash: source <(l2fibctl completion bash)
_l2fibctl()
{
    local line=${COMP_LINE:0:COMP_POINT} words candidate
    # shellcheck disable=SC2162 # backslashes quote blanks and signs in names
    read -a words <<<"$line|"
    words[-1]=${words[-1]%|}
    local current=${words[-1]} breaks=${COMP_WORDBREAKS//[^:=]/}
    local kept=""
    [[ -n $breaks ]] && kept=${current%"${current##*[$breaks]}"}
    COMPREPLY=()
    while IFS=$'\t' read -r candidate _; do
        printf -v candidate %q "${candidate#"$kept"}"
        COMPREPLY+=("${candidate//\\,/,}") # a comma needs no backslash
    done < <("${words[0]}" complete-words -- "${words[@]:1}" 2>/dev/null)
    [[ ${#COMPREPLY[@]} == 1 && ${COMPREPLY[0]} == *[=/,] ]] && compopt -o nospace 2>/dev/null
    return 0
}
complete -F _l2fibctl l2fibctl
)";

constexpr char zsh_script[] = R"(#compdef l2fibctl
# Completion of l2fibctl for zsh: source <(l2fibctl completion zsh), or a file _l2fibctl in a directory of $fpath
_l2fibctl()
{
    local -a found
    local line
    while IFS= read -r line; do
        found+=("${${${line%%$'\t'*}//:/\\:}}${${line#*$'\t'}:+:${line#*$'\t'}}")
    done < <("${words[1]}" complete-words -- "${(@)words[2,CURRENT]}" 2>/dev/null)
    _describe l2fibctl found
}
if [[ ${funcstack[1]} == _l2fibctl ]]; then
    _l2fibctl "$@"
else
    compdef _l2fibctl l2fibctl
fi
)";

constexpr char fish_script[] = R"(# Completion of l2fibctl for fish: l2fibctl completion fish | source
function __l2fibctl_words
    set -l words (commandline --tokenize --cut-at-cursor --current-process)
    set -l program $words[1]
    set -e words[1]
    $program complete-words -- $words (commandline --current-token --cut-at-cursor) 2>/dev/null
end
complete --command l2fibctl --no-files --arguments '(__l2fibctl_words)'
)";

struct shell_script {
    std::string_view shell;
    const char *text;
};
constexpr shell_script scripts[] = {{"bash", bash_script}, {"zsh", zsh_script}, {"fish", fish_script}};

constexpr unsigned daemon_timeout_seconds = 1; // the operator waits at the key
constexpr uint64_t max_addresses = 100;        // more fit on no screen

struct candidate {
    std::string text;
    std::string description = {};
};
using candidates = std::vector<candidate>;

// What the last word of the command line is to become.
struct request_for_words {
    const given_names &given;    // by the words before it
    const std::string &last;     // as typed
    const client_options &asked; // for requests to the daemon

    command_kind command() const { return given.command != nullptr ? given.command->kind : command_kind::none; }
};

// ---- Values from the daemon ----

// Returns each text of the member once.
std::set<std::string> texts_of(const client_options &options, const std::string &path, std::string_view list,
                               std::string_view member, uint64_t max_items)
{
    std::set<std::string> found;
    query_session session{options};
    for_each_page(session, {path, list}, max_items, [&](const page &current) {
        for (const json_value item : current.items) {
            found.insert(base::visible(text_of(item, member)));
        }
        return true;
    });
    return found;
}

candidates candidates_of(const std::set<std::string> &texts)
{
    candidates found;
    for (const std::string &text : texts) {
        found.push_back({text});
    }
    return found;
}

// Full names, and names without the group once something is typed.
candidates domain_candidates(const client_options &options, std::string_view typed)
{
    std::set<std::string> names = texts_of(options, data_path("domains/domain"), "domain", "name", no_limit);
    candidates found = candidates_of(names);
    for (const std::string &name : names) {
        if (!typed.empty()) {
            found.push_back({name.substr(name.find(':') + 1), name});
        }
    }
    return found;
}

candidates address_candidates(const client_options &options, std::string_view typed)
{
    std::string digits(typed);
    std::erase(digits, ':');
    const std::string path = with_parameter(data_path("mac-table/mac-entry"), "mac-prefix", digits);
    return candidates_of(texts_of(options, path, "mac-entry", "mac-address", max_addresses));
}

// ---- Values that need no daemon ----

candidates choice_candidates(word_list choices)
{
    candidates found;
    for (const std::string_view word : choices) {
        found.push_back({std::string(word)});
    }
    return found;
}

candidates file_candidates(const std::string &typed)
{
    candidates found;
    const std::string directory = typed.substr(0, typed.rfind('/') + 1);
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(directory.empty() ? "." : directory, ignored)) {
        const bool is_directory = entry.is_directory(ignored);
        found.push_back({directory + entry.path().filename().string() + (is_directory ? "/" : "")});
    }
    return found;
}

candidates values_of(const option_row &row, const request_for_words &asked, const std::string &typed);

// Puts `start` before each candidate.
candidates behind(const std::string &start, candidates found)
{
    for (candidate &one : found) {
        one.text.insert(0, start);
    }
    return found;
}

// "port=" and what follows it.
candidates filter_candidates(const request_for_words &asked, const std::string &typed)
{
    candidates found;
    const size_t equals = typed.find('=');
    for (const option_row *row : options_of(asked.command())) {
        if (!row->is_filter()) {
            continue;
        }
        const std::string start = std::string(row->name) + "=";
        if (equals == std::string::npos) {
            found.push_back({start, std::string(row->help)});
        } else if (typed.starts_with(start)) {
            return behind(start, values_of(*row, asked, typed.substr(start.size())));
        }
    }
    return found;
}

candidates column_candidates(const request_for_words &asked, const std::string &typed)
{
    client_options options;
    options.command = asked.command();
    const view *shown = find_view(options);
    candidates found;
    for (const column &one : shown != nullptr ? shown->shown->columns : std::span<const column>()) {
        found.push_back({std::string(one.member), std::string(one.title)});
    }
    return behind(typed.substr(0, typed.rfind(',') + 1), std::move(found));
}

candidates command_candidates(std::string_view group)
{
    candidates found;
    for (const command_row &row : all_commands()) {
        const bool is_new = found.empty() || found.back().text != row.group;
        if (row.is_hidden()) {
            continue;
        }
        if (row.group == group) {
            found.push_back({std::string(row.name), std::string(row.help)});
        } else if (group.empty() && is_new) {
            found.push_back({std::string(row.group), "Print a table"});
        }
    }
    return found;
}

candidates topic_candidates(const request_for_words &asked)
{
    const found_command named = find_command(asked.given.arguments);
    candidates found = named.command == nullptr ? command_candidates(named.group) : candidates();
    for (const help_topic &one : asked.given.arguments.empty() ? all_topics() : std::span<const help_topic>()) {
        found.push_back({std::string(one.name), std::string(one.summary)});
    }
    return found;
}

// ---- Choosing ----

candidates values_of(const option_row &row, const request_for_words &asked, const std::string &typed)
{
    const client_options &options = asked.asked;
    switch (row.source) {
    case value_source::choices: return choice_candidates(row.choices);
    case value_source::domains: return domain_candidates(options, typed);
    case value_source::ports:
        return candidates_of(texts_of(options, data_path("ports/port"), "port", "name", no_limit));
    case value_source::vteps:
        return candidates_of(texts_of(options, data_path("vteps/vtep"), "vtep", "address", no_limit));
    case value_source::addresses: return address_candidates(options, typed);
    case value_source::files: return file_candidates(typed);
    case value_source::filters: return filter_candidates(asked, typed);
    case value_source::columns: return column_candidates(asked, typed);
    case value_source::topics: return topic_candidates(asked);
    case value_source::nowhere: break;
    }
    return {};
}

// --name=value is one word.
candidates option_candidates(const request_for_words &asked)
{
    const size_t equals = asked.last.find('=');
    if (equals != std::string::npos) {
        const option_row *row = find_option(asked.last.substr(2, equals - 2), asked.command());
        const std::string start = asked.last.substr(0, equals + 1);
        return row != nullptr ? behind(start, values_of(*row, asked, asked.last.substr(equals + 1))) : candidates();
    }
    candidates found;
    for (const option_row *row : options_of(asked.command())) {
        if (row->repeats || !asked.given.has(row->name)) {
            found.push_back({"--" + std::string(row->name), std::string(row->help)});
        }
    }
    return found;
}

candidates argument_candidates(const request_for_words &asked)
{
    const command_row &command = *asked.given.command;
    const bool takes_more = command.arguments == argument_count::any
                            || (command.arguments != argument_count::none && asked.given.arguments.empty());
    return takes_more ? values_of(command.argument, asked, asked.last) : candidates();
}

candidates candidates_for(const request_for_words &asked)
{
    if (asked.given.awaits != nullptr) {
        return values_of(*asked.given.awaits, asked, asked.last);
    }
    if (asked.last.starts_with('-')) {
        return option_candidates(asked);
    }
    return asked.given.command != nullptr ? argument_candidates(asked) : command_candidates(asked.given.group);
}

// The socket of the command line that is completed.
client_options options_for(const client_options &own, const given_names &given)
{
    client_options options = own;
    options.timeout_seconds = daemon_timeout_seconds;
    for (const given_option &one : given.options) {
        if (one.row->name == "socket") {
            options.socket = one.value;
        }
    }
    return options;
}

candidates find_candidates(const client_options &own)
{
    std::vector<std::string> words = own.words;
    const std::string last = words.empty() ? "" : words.back();
    words.resize(words.empty() ? 0 : words.size() - 1);
    try {
        const given_names given = read_names(words);
        candidates found = candidates_for({given, last, options_for(own, given)});
        std::erase_if(found, [&](const candidate &one) { return !one.text.starts_with(last); });
        return found;
    } catch (const failure &) {
        return {}; // a message would stand in the middle of the operator's line
    }
}

} // namespace

void print_completion_script(query_session &session)
{
    output out(session.progress_line, false, "");
    out.pending().put(std::ranges::find(scripts, session.options.words.front(), &shell_script::shell)->text);
    out.release();
}

void complete(query_session &session)
{
    output out(session.progress_line, false, "");
    for (const candidate &one : find_candidates(session.options)) {
        out.pending().put(one.text + "\t" + one.description + "\n");
    }
    out.release();
}

} // namespace l2fibctl
