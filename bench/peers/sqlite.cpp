// SPDX-License-Identifier: Apache-2.0

// A peer on SQLite: a table in memory with a second index by port and address. A batch is a transaction. The library
// takes its own lock in each call.
#include <sqlite3.h>

#include <initializer_list>
#include <stdexcept>

#include "bench/table/contestant.h"
#include "bench/table/page.h"
#include "platform/utility.h"

namespace bench {

namespace {

constexpr char schema[] =
    "PRAGMA journal_mode = OFF;"
    "PRAGMA synchronous = OFF;"
    "CREATE TABLE mac (domain INTEGER, address INTEGER, xcid INTEGER, flags INTEGER, stamp INTEGER,"
    "    is_marked INTEGER, PRIMARY KEY (domain, address)) WITHOUT ROWID;"
    "CREATE INDEX by_port ON mac (xcid, address);";

enum statement : uint8_t {
    feed_entry,
    get_by_domain,
    get_by_port,
    next_on_port,
    next_of_domain,
    walk_all,
    page_behind,
    mark,
    sweep,
    remove_one,
    begin,
    commit,
    statement_count
};

constexpr const char *texts[statement_count] = {
    ("INSERT INTO mac VALUES (?1, ?2, ?3, ?4, ?5, 0) ON CONFLICT (domain, address) DO UPDATE SET xcid = ?3, flags = ?4,"
     " stamp = ?5, is_marked = 0"),
    "SELECT address, xcid FROM mac WHERE domain = ?1 AND address = ?2",
    "SELECT address, xcid FROM mac WHERE xcid = ?1 AND address = ?2",
    "SELECT address, xcid FROM mac WHERE xcid = ?1 AND address > ?2 ORDER BY address LIMIT 1",
    "SELECT address, xcid FROM mac WHERE domain = ?1 AND address > ?2 ORDER BY address LIMIT 1",
    "SELECT address, xcid FROM mac INDEXED BY by_port ORDER BY xcid, address",
    "SELECT address, xcid FROM mac WHERE (xcid, address) > (?1, ?2) AND xcid < ?3 ORDER BY xcid, address LIMIT ?4",
    "UPDATE mac SET is_marked = 1",
    "DELETE FROM mac WHERE is_marked = 1",
    "DELETE FROM mac WHERE domain = ?1",
    "BEGIN",
    "COMMIT",
};

struct found {
    uint64_t address;
    uint32_t xcid;
};

class sqlite_table final : public contestant {
public:
    ~sqlite_table() override { finish(); }

    const char *name() const override { return "SQLite"; }

    bool open(layout over) override
    {
        opened_ = over;
        expect(sqlite3_open(":memory:", &database_));
        expect(sqlite3_exec(database_, schema, nullptr, nullptr, nullptr));
        for (size_t i = 0; i < statement_count; i++) {
            expect(sqlite3_prepare_v3(database_, texts[i], -1, SQLITE_PREPARE_PERSISTENT, &prepared_[i], nullptr));
        }
        return true;
    }

    void close() override { finish(); }

    uint64_t feed(entries fed) override
    {
        for (const entry &each : fed) {
            run(feed_entry, {each.bridge_id, number_of(each), each.xcid, each.flags,
                             static_cast<sqlite3_int64>(fts_get_stamp_fast())});
        }
        return fed.size();
    }

    uint64_t feed_batches(entries fed) override
    {
        for (size_t at = 0; at < fed.size(); at += batch_size) {
            run(begin, {});
            feed(fed.subspan(at, std::min(batch_size, fed.size() - at)));
            run(commit, {});
        }
        return fed.size();
    }

    uint64_t look_up_by_domain(entries asked) override
    {
        return answer(get_by_domain, asked, [](const entry &of) { return sqlite3_int64{of.bridge_id}; });
    }

    uint64_t look_up_by_port(entries asked) override { return answer(get_by_port, asked, xcid_of_entry); }
    uint64_t successors(entries asked) override { return answer(next_on_port, asked, xcid_of_entry); }

    uint64_t steps(uint32_t domain, size_t steps) override
    {
        uint64_t sum = 0;
        found at = {};
        const auto keep = [&](const found &each) { at = each; };
        for (size_t i = 0; i < steps; i++) {
            if (select(next_of_domain, {domain, static_cast<sqlite3_int64>(at.address)}, keep) == 0) {
                break;
            }
            sum = add_in_order(sum, at.address, at.xcid);
        }
        return sum;
    }

    uint64_t walk() override
    {
        uint64_t sum = 0;
        select(walk_all, {}, [&](const found &each) { sum = add_in_order(sum, each.address, each.xcid); });
        return sum;
    }

    uint64_t pages() override
    {
        uint64_t sum = 0;
        for (uint32_t domain = 1; domain <= opened_.domains; domain++) {
            const std::string tail = name_tail(domain);
            const sqlite3_int64 end = xcid_of(domain + 1, 0);
            found last = {0, xcid_of(domain, 0)};
            const auto keep = [&](const found &each) {
                last = each;
                append_item(page_, each.address, tail);
            };
            size_t limit = 1; // the first item only, as the key behind which the pages begin
            for (;;) {
                clear_page(page_);
                const sqlite3_int64 address = static_cast<sqlite3_int64>(last.address);
                if (select(page_behind, {last.xcid, address, end, static_cast<sqlite3_int64>(limit)}, keep) == 0) {
                    break;
                }
                sum = limit == 1 ? sum : add_page(sum, page_);
                limit = page_size;
            }
        }
        return sum;
    }

    uint64_t mark_all() override { return run(mark, {}); }
    uint64_t sweep_all() override { return run(sweep, {}); }
    uint64_t remove_domain(uint32_t domain) override { return run(remove_one, {domain}); }

private:
    using values = std::initializer_list<sqlite3_int64>;

    static sqlite3_int64 number_of(const entry &of) { return static_cast<sqlite3_int64>(address_of(of.mac_addr)); }
    static sqlite3_int64 xcid_of_entry(const entry &of) { return of.xcid; }

    void expect(int status)
    {
        if (status != SQLITE_OK && status != SQLITE_DONE) {
            throw std::runtime_error(std::string("SQLite: ") + sqlite3_errmsg(database_));
        }
    }

    // Runs a statement and calls `visit` for each row. Returns how many there were.
    template <typename Visit>
    size_t select(statement which, values bound, Visit visit)
    {
        sqlite3_stmt *const at = prepared_[which];
        int place = 1;
        for (const sqlite3_int64 each : bound) {
            sqlite3_bind_int64(at, place++, each);
        }
        size_t rows = 0;
        int status = sqlite3_step(at);
        for (; status == SQLITE_ROW; status = sqlite3_step(at)) {
            visit(found{static_cast<uint64_t>(sqlite3_column_int64(at, 0)),
                        static_cast<uint32_t>(sqlite3_column_int64(at, 1))});
            rows++;
        }
        expect(status);
        sqlite3_reset(at);
        return rows;
    }

    uint64_t run(statement which, values bound)
    {
        return select(which, bound, [](const found &) {});
    }

    template <typename Scope>
    uint64_t answer(statement which, entries asked, Scope scope)
    {
        uint64_t sum = 0;
        for (const entry &each : asked) {
            select(which, {scope(each), number_of(each)},
                   [&](const found &of) { sum = add_answer(sum, of.address, of.xcid); });
        }
        return sum;
    }

    void finish()
    {
        for (sqlite3_stmt *&each : prepared_) {
            sqlite3_finalize(each);
            each = nullptr;
        }
        sqlite3_close(database_);
        database_ = nullptr;
    }

    layout opened_ = {};
    sqlite3 *database_ = nullptr;
    sqlite3_stmt *prepared_[statement_count] = {};
    name_page page_;
};

} // namespace

std::unique_ptr<contestant> make_sqlite()
{
    return std::make_unique<sqlite_table>();
}

} // namespace bench
