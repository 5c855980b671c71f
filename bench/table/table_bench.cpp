// SPDX-License-Identifier: Apache-2.0

// Measures the rows of the table, ours and the peers' in turns, and prints one JSON object a line for each figure.
// scripts/bench runs it and makes the table of the results.
//
// With --instructions it runs each row once, for callgrind to count: start it under
//     valgrind --tool=callgrind --instr-atstart=no
#include <CLI/CLI.hpp>
#include <fnmatch.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "bench/table/seat.h"

namespace {

using bench::seat;

struct options {
    std::string rows = "*";
    std::string peers = "*";
    std::vector<size_t> sizes = {10'000, 100'000, 1'000'000};
    size_t runs = 5;
    bool instructions = false;
    bool list = false;
};

constexpr size_t wide_size = 100'000;
constexpr char wide_prefix[] = "wide:";

bool is_selected(const std::string &pattern, const std::string &key)
{
    return fnmatch(pattern.c_str(), key.c_str(), 0) == 0;
}

// One column of a row: a contestant, the work that it does, and what came out.
struct column {
    seat *at;
    const bench::work *on;
    std::string name;
    std::vector<bench::sample> samples = {};
};

struct result {
    std::string key;
    size_t size;
    column measured;
};

double fastest_probe_of(const std::vector<result> &results)
{
    double fastest = bench::probe();
    for (const result &each : results) {
        for (const bench::sample &one : each.measured.samples) {
            fastest = std::min(fastest, one.slowest_probe);
        }
    }
    return fastest;
}

void print_results(const std::vector<result> &results)
{
    const double fastest = fastest_probe_of(results);
    for (const result &each : results) {
        if (each.measured.samples.empty()) {
            continue;
        }
        const bench::summary of = bench::summarize(each.measured.samples, fastest);
        std::printf("{\"row\": \"%s\", \"size\": %zu, \"contestant\": \"%s\", \"median\": %.3f, \"samples\": %zu, "
                    "\"quiet\": %zu}\n",
                    each.key.c_str(), each.size, each.measured.name.c_str(), of.median, of.samples, of.quiet);
    }
}

// Measures a row `runs` times in each column, in turns. A column that cannot do the row stays empty.
void measure_row(const bench::row &wanted, std::vector<column> &columns, size_t runs)
{
    std::vector<bool> is_out(columns.size());
    for (size_t run = 0; run < runs; run++) {
        for (size_t i = 0; i < columns.size(); i++) {
            column &each = columns[i];
            is_out[i] = is_out[i] || !bench::take_sample(*each.at, wanted, *each.on, each.samples);
        }
    }
}

void keep(std::vector<result> &results, const std::string &key, std::vector<column> columns)
{
    for (column &each : columns) {
        const size_t size = each.on->fed.size();
        results.push_back({key, size, std::move(each)});
    }
}

void measure_size(const options &wanted, std::vector<seat> &seats, size_t size, std::vector<result> &results)
{
    const bench::work main_work = bench::make_work(bench::main_layout, size);
    const bench::work work_of_steps = bench::make_work(bench::layout_of_steps, size);
    for (const bench::row &row : bench::all_rows()) {
        if (!is_selected(wanted.rows, row.key)) {
            continue;
        }
        std::fprintf(stderr, "%s, %zu entries\n", row.key, size);
        std::vector<column> columns;
        for (seat &each : seats) {
            const bool is_main = row.over == bench::main_layout;
            columns.push_back({&each, is_main ? &main_work : &work_of_steps, each.table->name()});
        }
        measure_row(row, columns, wanted.runs);
        keep(results, row.key, std::move(columns));
    }
    for (seat &each : seats) {
        bench::close(each);
    }
}

// Our own table with one bridge domain, of 1,000 ports and of 32.
void measure_wide(const options &wanted, seat &ours, std::vector<result> &results)
{
    const bench::work narrow = bench::make_work(bench::one_domain, wide_size);
    const bench::work wide = bench::make_work(bench::wide_domain, wide_size);
    for (const bench::row &row : bench::all_rows()) {
        const std::string key = wide_prefix + std::string(row.key);
        if (!is_selected(wanted.rows, key) || !(row.over == bench::main_layout)) {
            continue;
        }
        std::fprintf(stderr, "%s\n", key.c_str());
        std::vector<column> columns = {{&ours, &wide, "1,000 ports"}, {&ours, &narrow, "32 ports"}};
        measure_row(row, columns, wanted.runs);
        keep(results, key, std::move(columns));
    }
    bench::close(ours);
}

void count_instructions(const options &wanted, seat &ours)
{
    for (const size_t size : wanted.sizes) {
        const bench::work main_work = bench::make_work(bench::main_layout, size);
        const bench::work work_of_steps = bench::make_work(bench::layout_of_steps, size);
        for (const bench::row &row : bench::all_rows()) {
            const bench::work &on = row.over == bench::main_layout ? main_work : work_of_steps;
            if (row.measures != bench::figure::time || !is_selected(wanted.rows, row.key)
                || !bench::prepare(ours, row, on)) {
                continue;
            }
            CALLGRIND_ZERO_STATS;
            CALLGRIND_START_INSTRUMENTATION;
            const uint64_t result = bench::run_pass(ours, row, on);
            CALLGRIND_STOP_INSTRUMENTATION;
            if (result != bench::cannot) {
                CALLGRIND_DUMP_STATS_AT(row.key);
                std::printf("{\"row\": \"%s\", \"size\": %zu, \"items\": %zu}\n", row.key, size,
                            bench::items_of(row, on));
            }
        }
        bench::close(ours);
    }
}

using contestants = std::vector<std::unique_ptr<bench::contestant>>;

// Throws std::runtime_error if the pattern selects no peer.
void expect_peer(const contestants &all, const std::string &pattern)
{
    std::string names;
    for (size_t i = 1; i < all.size(); i++) {
        if (is_selected(pattern, all[i]->name())) {
            return;
        }
        names += names.empty() ? "" : ", ";
        names += all[i]->name();
    }
    if (all.size() > 1) {
        throw std::runtime_error("no peer matches " + pattern + "; the peers are: " + names);
    }
}

// The seats of ours and of the selected peers. A peer that this machine cannot run is named on standard error.
std::vector<seat> seats_of(const contestants &all, const options &wanted)
{
    expect_peer(all, wanted.peers);
    std::vector<seat> seats = {{all.front().get()}};
    for (size_t i = 1; i < all.size(); i++) {
        bench::contestant &peer = *all[i];
        if (!is_selected(wanted.peers, peer.name())) {
            continue;
        }
        if (bench::check_answers(*all.front(), peer)) {
            seats.push_back({&peer});
        } else {
            std::fprintf(stderr, "%s: this machine cannot run it\n", peer.name());
        }
    }
    return seats;
}

// The rows with their targets, for the script that prints the table.
void list_rows()
{
    for (const bench::row &row : bench::all_rows()) {
        const bench::targets &goal = row.goal;
        std::printf("{\"row\": \"%s\", \"title\": \"%s\", \"at_most\": [%g, %g, %g], \"instructions\": %g, "
                    "\"most\": %g, \"most_from\": %zu}\n",
                    row.key, row.title, goal.at_most[0], goal.at_most[1], goal.at_most[2], goal.instructions, goal.most,
                    goal.most_from);
    }
}

void run(const options &wanted)
{
    const contestants all = bench::make_contestants();
    if (wanted.instructions) {
        seat ours = {all.front().get()};
        count_instructions(wanted, ours);
        return;
    }
    std::vector<seat> seats = seats_of(all, wanted);
    std::vector<result> results;
    for (const size_t size : wanted.sizes) {
        measure_size(wanted, seats, size, results);
    }
    measure_wide(wanted, seats.front(), results);
    print_results(results);
}

} // namespace

std::vector<std::unique_ptr<bench::contestant>> bench::make_contestants()
{
    std::vector<std::unique_ptr<contestant>> all;
    all.push_back(make_ours());
#ifdef L2FIB_BENCH_PEERS
    for (const auto make :
         {make_full, make_multi_index, make_map_of_maps, make_intrusive_avl, make_sqlite, make_kernel}) {
        all.push_back(make());
    }
#endif
    return all;
}

int main(int argc, char **argv)
{
    options wanted;
    CLI::App app("Measures the table, ours and peers'.");
    app.add_option("--rows", wanted.rows, "shell pattern of the rows' keys");
    app.add_option("--peers", wanted.peers, "shell pattern of the peers' names");
    app.add_option("--sizes", wanted.sizes, "numbers of entries, with commas")
        ->delimiter(',')
        ->check(CLI::PositiveNumber);
    app.add_option("--runs", wanted.runs, "samples of each figure")->check(CLI::PositiveNumber);
    app.add_flag("--instructions", wanted.instructions, "run each row once, for callgrind");
    app.add_flag("--list", wanted.list, "list the rows and their targets");
    CLI11_PARSE(app, argc, argv);
    try {
        if (wanted.list) {
            list_rows();
        } else {
            run(wanted);
        }
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "table_bench: %s\n", failure.what());
        return 1;
    }
    return 0;
}
