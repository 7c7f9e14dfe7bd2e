#include "output/lb_output.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "config/live_state.h"
#include "config/own_records.h"
#include "host/clock.h"
#include "host/files.h"
#include "host/log.h"
#include "output/records.h"
#include "output/report_text.h"

namespace {

using host::File;

timeval seconds_and_micros(const timespec& time) {
    return {.tv_sec = time.tv_sec, .tv_usec = time.tv_nsec / 1000};
}

std::string dumps_of(const std::string& out_dir) {
    return out_dir + "/wlb_dump";
}

std::string outbounds_path(const std::string& out_dir, bool ipv6) {
    return dumps_of(out_dir) + (ipv6 ? "/wlb_ipv6_outbounds.bin" : "/wlb_ipv4_outbounds.bin");
}

std::string report_path(const std::string& out_dir, bool ipv6) {
    return out_dir + (ipv6 ? "/wlb_ipv6.out" : "/wlb_ipv4.out");
}

std::string rules_path(const std::string& out_dir) {
    return dumps_of(out_dir) + "/wlb_rules.bin";
}
std::string routes_path(const std::string& out_dir) {
    return dumps_of(out_dir) + "/wlb_routes.bin";
}

template <class Record>
bool write_record(FILE* file, const Record& record) {
    return fwrite(&record, sizeof record, 1, file) == 1;
}

/// Writes records many at a call, some hundred kilobytes.
template <class Record>
class RecordWriter {
  public:
    explicit RecordWriter(FILE* file) : file_(file) { waiting_.reserve(at_once); }

    /// False where records could not be written.
    bool add(const Record& record) {
        waiting_.push_back(record);
        return waiting_.size() < at_once || flush();
    }
    bool flush() {
        const std::size_t count = waiting_.size();
        const bool is_written = fwrite(waiting_.data(), sizeof(Record), count, file_) == count;
        waiting_.clear();
        return is_written;
    }

  private:
    /// Below what the C library takes from the kernel, and gives back to it, each time.
    static constexpr std::size_t at_once = 120'000 / sizeof(Record);

    FILE* file_;
    std::vector<Record> waiting_;
};

/// Whether an interface of the worker has become active or inactive in this cycle.
bool has_changed_state(const LBData& data, const context& ctx) {
    const auto own = ctx.own->interfaces(data, ctx);
    return std::any_of(own.begin(), own.end(),
                       [](const LBHealth* health) { return health->state_changed; });
}

/// A full disk shows only when the buffer goes out.
bool is_on_disk(FILE* file) {
    return fflush(file) == 0;
}

void log_block_failure(const char* function) {
    LOG_ERROR("wan_lb: <%s> error writing data block", function);
}

void log_text_failure(const char* function) {
    LOG_ERROR("<%s> wan_lb: snprintf failed", function);
}

constexpr const char* dump_rules_name = "dump_rules_and_routes";

std::optional<record::Outbound> read_outbound(const LBHealth& health, int now_s) {
    const LiveStateReader hold;
    return outbound_record(health, now_s);
}

/// False after logging why the dump stops.
bool write_records_of(const std::map<std::string, LBHealth>& interfaces, int now_s, FILE* file) {
    RecordWriter<record::Outbound> records(file);
    for (const auto& [name, health] : interfaces) {
        const auto record = read_outbound(health, now_s);
        if (!record) {
            records.flush();
            log_text_failure("dump_outbounds");
            return false;
        }
        if (!records.add(*record)) {
            log_block_failure("dump_outbounds");
            return false;
        }
    }
    if (!records.flush() || !is_on_disk(file)) {
        log_block_failure("dump_outbounds");
        return false;
    }
    return true;
}

/// Writes a rule's route records; false after logging why the dump stops.
bool dump_routes(const RuleKey& key, const LBRule& rule, FILE* file) {
    int position = 0;
    for (const auto& [prefix, metric] : rule.targets) {
        if (++position > static_cast<int>(record::most_entries)) {
            break;
        }
        std::optional<record::Route> route;
        {
            const LiveStateReader hold;
            route = route_record(key, rule, prefix, metric, position);
        }
        if (!route) {
            log_text_failure(dump_rules_name);
            return false;
        }
        if (!write_record(file, *route)) {
            LOG_ERROR("wan_lb: error dumping routes");
            return false;
        }
    }
    return true;
}

/// Writes one rule with its routes; false after logging why the dump stops.
bool dump_rule(const std::string& name, const LBRule& rule, FILE* rules_file, FILE* routes_file) {
    const auto key = read_rule_key(name);
    if (!key) {
        LOG_ERROR("<%s> wan_lb: sscanf failed", dump_rules_name);
        return false;
    }
    const auto record = rule_record(*key, rule);
    if (!record) {
        log_text_failure(dump_rules_name);
        return false;
    }
    if (!write_record(rules_file, *record)) {
        log_block_failure(dump_rules_name);
        return false;
    }
    return dump_routes(*key, rule, routes_file);
}

File open_shared_file(const std::string& path) {
    File file = host::open_file(path, "wb");
    if (file == nullptr) {
        LOG_ERROR("wan_lb: Error open file for writing '%s'", path.c_str());
    }
    return file;
}

}  // namespace

LBOutput::LBOutput(std::string& output_dir) : out_dir(output_dir) {
    const int rc = pthread_mutex_init(&mutex, nullptr);
    if (rc != 0) {
        LOG_ERROR("wan_lb: <%s> error mutex initialization", "LBOutput");
        pthread_exit(reinterpret_cast<void*>(static_cast<std::intptr_t>(rc)));
    }
}

LBOutput::~LBOutput() noexcept(false) {
    const int rc = pthread_mutex_destroy(&mutex);
    if (rc != 0) {
        LOG_ERROR("wan_lb: <%s> error mutex destroy", "~LBOutput");
        pthread_exit(reinterpret_cast<void*>(static_cast<std::intptr_t>(rc)));
    }
}

bool LBOutput::prepare_files(bool ipv6) {
    const std::string directory = dumps_of(out_dir);
    {
        const std::lock_guard guard(names_lock_);
        dump_dir = directory;
    }
    if (const int error = host::make_directory(directory); error != 0) {
        LOG_ERROR("wan_lb: error create directory: %s, errno = %d", directory.c_str(), error);
        return false;
    }
    const std::lock_guard guard(names_lock_);
    files.insert(rules_path(out_dir));
    files.insert(routes_path(out_dir));
    auto& family_files = ipv6 ? files6 : files;
    family_files.insert(outbounds_path(out_dir, ipv6));
    family_files.insert(report_path(out_dir, ipv6));
    return true;
}

void LBOutput::write(const LBData& data, context* ctx) {
    const ByFile<bool> due = look_for_due_files(ctx, has_changed_state(data, *ctx));
    const auto is_due = [&due](Shared file) { return due[static_cast<std::size_t>(file)]; };
    const bool is_any_due = std::find(due.begin(), due.end(), true) != due.end();
    if (!is_any_due || !prepare_files(ctx->ipv6)) {
        return;
    }
    const std::size_t family = ctx->ipv6 ? 1 : 0;
    if (is_due(Shared::outbounds)) {
        const std::unique_lock writer(outbounds_writers_[family], std::try_to_lock);
        if (writer.owns_lock()) {
            rewrite(Shared::outbounds, ctx, [&] {
                return write_outbounds(data, seconds_and_micros(wall_now()), ctx->ipv6);
            });
        }
    }
    if (is_due(Shared::rules) && !dump_shared_files(data, ctx)) {
        return;
    }
    if (is_due(Shared::report)) {
        const std::unique_lock writer(report_writers_[family], std::try_to_lock);
        if (writer.owns_lock()) {
            rewrite(Shared::report, ctx, [&] { return write_report(data, ctx); });
        }
    }
}

LBOutput::ByFile<bool> LBOutput::look_for_due_files(const context* ctx, bool has_changed) {
    const std::lock_guard guard(rewrites_lock_);
    ByFile<Known>& known = known_[ctx];
    ByFile<bool> due{};
    for (std::size_t file = 0; file < due.size(); ++file) {
        const std::uint64_t rewrites = rewrites_of(static_cast<Shared>(file), ctx);
        known[file].has_news = known[file].has_news || has_changed;
        const bool is_left_to_siblings = std::exchange(known[file].rewrites, rewrites) != rewrites;
        due[file] = known[file].has_news || !is_left_to_siblings;
    }
    return due;
}

std::uint64_t& LBOutput::rewrites_of(Shared file, const context* ctx) {
    // The rules are every worker's.
    const std::size_t family = ctx->ipv6 && file != Shared::rules ? 1 : 0;
    return rewrites_[family][static_cast<std::size_t>(file)];
}

template <class Write>
void LBOutput::rewrite(Shared file, const context* ctx, Write write) {
    {
        const std::lock_guard guard(rewrites_lock_);
        Known& known = known_[ctx][static_cast<std::size_t>(file)];
        if (!known.has_news && known.rewrites != rewrites_of(file, ctx)) {
            known.rewrites = rewrites_of(file, ctx);  // left to it once, not in the next cycle too
            return;
        }
    }
    if (write()) {
        const std::lock_guard guard(rewrites_lock_);
        known_[ctx][static_cast<std::size_t>(file)] = {.rewrites = ++rewrites_of(file, ctx),
                                                       .has_news = false};
    }
}

bool LBOutput::dump_shared_files(const LBData& data, context* ctx) {
    if (pthread_mutex_trylock(&mutex) != 0) {
        return true;  // another worker is writing them
    }
    rewrite(Shared::rules, ctx, [&] { return write_rules_and_routes(data); });
    const int rc = pthread_mutex_unlock(&mutex);
    if (rc != 0) {
        LOG_ERROR("wan_lb: <%s> mutex unlock error. PThread return code: %d", "write", rc);
    }
    return rc == 0;
}

bool LBOutput::write_report(const LBData& data, context* ctx) {
    const std::string path = report_path(out_dir, ctx->ipv6);
    const File file = host::open_file(path, "w");
    if (file == nullptr) {
        LOG_ERROR("wan_lb: error ordering output file %s", path.c_str());
        return false;
    }
    const timeval now = seconds_and_micros(wall_now());
    const auto& interfaces = data.family(ctx->ipv6);
    for (auto entry = interfaces.begin(); entry != interfaces.end(); ++entry) {
        single_write(entry, file.get(), now, ctx);
    }
    return is_on_disk(file.get()) && ferror(file.get()) == 0;
}

void LBOutput::single_write(std::map<std::string, LBHealth>::const_iterator entry, FILE* file,
                            timeval now, context* /*ctx*/) {
    std::string text;
    {
        const LiveStateReader hold;
        text = report_record(entry->first, entry->second, static_cast<int>(now.tv_sec));
    }
    fputs(text.c_str(), file);
}

void LBOutput::dump_outbounds(const LBData& data, timeval now, context* ctx, int ipv6) {
    if (ctx != nullptr) {
        write_outbounds(data, now, ipv6 == 1);
    }
}

bool LBOutput::write_outbounds(const LBData& data, timeval now, bool is_ipv6) const {
    const std::string path = outbounds_path(out_dir, is_ipv6);
    const auto& interfaces = data.family(is_ipv6);
    // The largest of the files. Its records stay in their places from cycle to cycle.
    const File file =
        host::open_file_to_overwrite(path, interfaces.size() * sizeof(record::Outbound));
    if (file == nullptr) {
        LOG_ERROR("wan_lb: error open file for writing '%s'", path.c_str());
        return false;
    }
    const bool is_whole = write_records_of(interfaces, static_cast<int>(now.tv_sec), file.get());
    if (!is_whole) {
        host::end_file_here(file.get());
    }
    return is_whole;
}

void LBOutput::dump_rules_and_routes(const LBData& data, context* ctx) {
    if (ctx != nullptr) {
        write_rules_and_routes(data);
    }
}

bool LBOutput::write_rules_and_routes(const LBData& data) const {
    const File rules_file = open_shared_file(rules_path(out_dir));
    if (rules_file == nullptr) {
        return false;
    }
    const File routes_file = open_shared_file(routes_path(out_dir));
    if (routes_file == nullptr) {
        return false;
    }
    for (const auto& [name, rule] : data.rules) {
        if (!dump_rule(name, rule, rules_file.get(), routes_file.get())) {
            return false;
        }
    }
    if (!is_on_disk(rules_file.get())) {
        log_block_failure(dump_rules_name);
        return false;
    }
    if (!is_on_disk(routes_file.get())) {
        LOG_ERROR("wan_lb: error dumping routes");
        return false;
    }
    return true;
}

void LBOutput::shutdown() {
    const std::lock_guard guard(names_lock_);
    for (const auto* names : {&files, &files6}) {
        for (const std::string& path : *names) {
            host::remove_file(path);
        }
    }
}
