#include "lbroute/status.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "decision/route_text.h"
#include "lbroute/bird2.h"
#include "lbroute/commands.h"
#include "lbroute/findings.h"
#include "lbroute/report_text.h"
#include "lbroute/site.h"
#include "lbroute/steps.h"
#include "lbroute/surroundings.h"
#include "shared/file_text.h"
#include "shared/processes.h"
#include "shared/standard_output.h"

namespace lbroute {

namespace {

void wait_until_ms(std::int64_t at_ms) {
    const std::int64_t left = at_ms - boottime_ms();
    std::this_thread::sleep_for(std::chrono::milliseconds(std::max<std::int64_t>(0, left)));
}

/// Reads files until none of them is just being rewritten.
void read_settled(Site& site) {
    site.read_configuration();
    site.read_dumps(boottime_ms());
    if (site.read_again_at_ms()) {
        wait_until_ms(*site.read_again_at_ms());
        site.read_dumps(boottime_ms());
    }
}

void read_settled(FragmentFile& file) {
    file.read(boottime_ms());
    if (file.read_again_at_ms()) {
        wait_until_ms(*file.read_again_at_ms());
        file.read(boottime_ms());
    }
}

ReportedFragment reported(const FragmentFile& file, const std::string& namespace_name,
                          const Site& site) {
    ReportedFragment shown;
    shown.path = file.path();
    shown.state = file.is_current()   ? "read"
                  : file.is_missing() ? "missing"
                                      : "not whole or not readable";
    for (const auto& [problem, level] : file.problems()) {
        shown.problems.push_back(problem);
    }
    const std::string unwatched =
        site.problems().empty() ? unwatched_text(file, namespace_name, site.uplinks()) : "";
    if (!unwatched.empty()) {
        shown.problems.push_back(unwatched);
    }
    return shown;
}

/// What is known without the kernel: everything that the plans of all namespaces follow.
struct Scene {
    Site site;
    std::vector<Hold> holds;
    DaemonRecord daemon;
    std::vector<std::string> problems;

    explicit Scene(const Options& options) : site(options.configuration, options.output_directory) {
        read_settled(site);
        for (const auto& [problem, level] : site.problems()) {
            problems.push_back(problem);
        }
        std::string problem;
        const StateFolder folder =
            StateFolder::open(StateFolder::usual_path, StateFolder::IfMissing::leave, problem);
        HoldsReading reading = read_holds(folder, boottime_ms());
        holds = std::move(reading.holds);
        daemon = read_record(folder);
        for (const std::string& one : {problem, reading.problem}) {
            if (!one.empty()) {
                problems.push_back(one);
            }
        }
    }
};

/// Enters a namespace and reads its fragments; why it cannot be looked at, or nothing.
std::string prepare(ServedNamespace& served) {
    for (FragmentFile& file : served.fragments()) {
        read_settled(file);
    }
    std::string problem;
    served.follow(problem);
    if (!problem.empty() || served.is_entered()) {
        return problem;
    }
    return "there is no namespace " + served.name();
}

ReportedNamespace look_at(const std::string& name, const Options& options, const Scene& scene) {
    ReportedNamespace reported_one;
    reported_one.name = name;
    ServedNamespace served(name, options);
    reported_one.problem = prepare(served);
    for (const FragmentFile& file : served.fragments()) {
        reported_one.fragments.push_back(reported(file, name, scene.site));
    }
    if (!reported_one.problem.empty()) {
        return reported_one;
    }
    View view = served.look(surroundings_of(name, scene.site.uplinks(), scene.holds), true);
    if (!view.problem.empty()) {
        reported_one.problem = "the kernel does not tell its " + view.problem;
        return reported_one;
    }
    if (scene.daemon.is_running()) {
        apply_refusals(scene.daemon, name, view);
    }
    reported_one.routes = reported_routes(
        view, scene.daemon, name, [&](std::uint32_t group) { return served.buckets_of(group); });
    return reported_one;
}

/// What stays in a namespace that the configuration does not name; none where nothing does.
std::optional<ReportedNamespace> left_behind_in(const std::string& name, const Options& options,
                                                std::string& problem) {
    ServedNamespace other(name, options);
    other.follow(problem);
    if (!other.is_entered()) {
        return std::nullopt;
    }
    Listing listing = other.list();
    if (!listing.problem.empty()) {
        problem = "namespace " + name + ": the kernel does not tell its " + listing.problem;
        return std::nullopt;
    }
    if (listing.state.routes.empty()) {
        return std::nullopt;
    }
    ReportedNamespace shown;
    shown.name = name;
    shown.not_served = "the configuration does not name it; its routes end with: " +
                       flush_commands(listing.state, name);
    View view;
    view.kernel = std::move(listing.state);
    shown.routes = reported_routes(view, {}, name,
                                   [&](std::uint32_t group) { return other.buckets_of(group); });
    return shown;
}

/// Looks into every namespace that the configuration does not name.
void add_left_behind(const Options& options, const std::set<std::string>& named, Report& report) {
    std::string problem;
    std::vector<std::string> unseen;
    for (const std::string& name : other_namespaces(named, problem)) {
        std::string cause;
        if (auto shown = left_behind_in(name, options, cause)) {
            report.namespaces.push_back(std::move(*shown));
        } else if (!cause.empty()) {
            unseen.push_back(cause);
        }
    }
    if (!problem.empty()) {
        report.problems.push_back(problem);
    }
    if (!unseen.empty()) {
        report.problems.push_back(
            "namespaces that the configuration does not name cannot be "
            "looked at (" +
            std::to_string(unseen.size()) + "), the first: " + unseen[0]);
    }
}

/// The text that bird is to have by the fragments of now.
Bird2Text text_for_bird(const Options& options, const Scene& scene, Report& report) {
    ServedNamespace served("", options);
    ReportedNamespace& shown = report.namespaces.emplace_back();
    shown.problem = prepare(served);
    for (const FragmentFile& file : served.fragments()) {
        shown.fragments.push_back(reported(file, "", scene.site));
    }
    if (!shown.problem.empty()) {
        return {};
    }
    const auto result =
        served.plan_for_others(surroundings_of("", scene.site.uplinks(), scene.holds), true);
    shown.problem = result.view.problem;
    return bird2_text_of_plan(result.view.wanted.routes, served.fragments());
}

/// Where bird writes the routes, what it was given is compared; what it made of it, bird tells.
void compare_bird2_file(const Options& options, const Scene& scene, Report& report) {
    const std::string& path = scene.daemon.bird2_file;
    const Bird2Text wanted = text_for_bird(options, scene, report);
    std::ranges::copy(wanted.left_out, std::back_inserter(report.problems));
    if (report.namespaces[0].problem.empty() && Bird2File(path, "").text() != wanted.text) {
        report.problems.push_back(path + " does not hold what the fragments ask for");
    }
}

void note_not_served(Report& report) {
    for (ReportedNamespace& one : report.namespaces) {
        const auto reason = report.daemon.not_served.find(one.name);
        if (reason != report.daemon.not_served.end()) {
            one.not_served = reason->second;
        }
    }
}

/// The process number files of what the daemon watches that name a process which runs: that one
/// must be the routing daemon there. Where none does goes into `nobody`, as a line for people.
std::vector<std::string> others_that_route(const Uplinks& uplinks, std::string& nobody) {
    std::vector<std::string> others;
    std::string unrouted;
    for (const auto& [name, family] : uplinks.watched) {
        const std::string path = pid_path(name, family == Family::ipv6);
        const std::string text = shared::text_of_file(path);
        pid_t pid = 0;
        std::from_chars(text.data(), text.data() + text.size(), pid);
        if (pid > 0 && shared::is_running(pid)) {
            others.push_back(path + " names process " + std::to_string(pid) + " (" +
                             shared::process_name(pid) + ")");
        } else {
            unrouted += (unrouted.empty() ? "" : ", ") + std::string(name_of(family)) +
                        (name.empty() ? " of the default namespace" : " of namespace " + name);
        }
    }
    if (!unrouted.empty()) {
        nobody = "no routing daemon runs for " + unrouted +
                 ", so nobody takes over what lb writes there from now on; start it: systemctl "
                 "start lbroute";
    }
    return others;
}

}  // namespace

Report report_of_now(Options options, bool chooses_table) {
    const Scene scene(options);
    Report report;
    report.daemon = scene.daemon;
    report.is_running = scene.daemon.is_running();
    report.problems = scene.problems;
    report.holds = scene.holds;
    report.now_ms = boottime_ms();
    if (scene.daemon.pid != 0) {
        options.is_sticky = scene.daemon.is_sticky;
        options.table = chooses_table ? options.table : scene.daemon.table;
    }
    if (report.is_running && !scene.daemon.bird2_file.empty()) {
        compare_bird2_file(options, scene, report);
    } else {
        const std::set<std::string> named = scene.site.uplinks().namespaces;
        for (const std::string& name : named) {
            report.namespaces.push_back(look_at(name, options, scene));
        }
        add_left_behind(options, named, report);
    }
    if (report.is_running) {
        note_not_served(report);
    } else {
        std::string nobody;
        report.others = others_that_route(scene.site.uplinks(), nobody);
        if (!nobody.empty()) {
            report.problems.push_back(nobody);
        }
    }
    return report;
}

int show_status(const Options& options, bool chooses_table, bool as_json) {
    const Report report = report_of_now(options, chooses_table);
    std::cout << (as_json ? report_json(report) : report_text(report));
    return shared::end_output("lbroute") && report.agrees() ? 0 : 1;
}

int show_commands(const Options& options) {
    const Scene scene(options);
    bool is_whole = scene.problems.empty();
    for (const std::string& problem : scene.problems) {
        std::cerr << "lbroute: " << problem << std::endl;
    }
    if (!options.bird2_file.empty()) {
        Report report;
        const Bird2Text made = text_for_bird(options, scene, report);
        for (const std::string& left_out : made.left_out) {
            std::cerr << "lbroute: " << left_out << std::endl;
        }
        std::cout << made.text;
        const bool is_good = is_whole && made.left_out.empty() && report.agrees();
        return shared::end_output("lbroute") && is_good ? 0 : 1;
    }
    const std::set<std::string> named = scene.site.uplinks().namespaces;
    std::vector<std::string> names(named.begin(), named.end());
    if (options.flushes) {
        std::string problem;
        std::ranges::copy(other_namespaces(named, problem), std::back_inserter(names));
        if (!problem.empty()) {
            std::cerr << "lbroute: " << problem << std::endl;
            is_whole = false;
        }
    }
    for (const std::string& name : names) {
        ServedNamespace served(name, options);
        const std::string problem = prepare(served);
        Journal::Problems problems;
        if (!problem.empty()) {
            problems[problem] = Level::error;
        } else if (options.flushes) {
            const Listing listing = served.list();
            if (!listing.problem.empty()) {
                problems = problems_of_listing(listing.problem, name);
            } else {
                for (const Step& step : flush_steps(listing.state)) {
                    std::cout << command_of(step, listing.state, name) << "\n";
                }
            }
        } else {
            for (const FragmentFile& file : served.fragments()) {
                problems.insert(file.problems().begin(), file.problems().end());
            }
            const auto result =
                served.rehearse(surroundings_of(name, scene.site.uplinks(), scene.holds), true);
            problems.merge(problems_of(result.view, name));
            for (const Step& step : result.taken) {
                std::cout << command_of(step, result.view.kernel, name) << "\n";
            }
        }
        for (const auto& [text, level] : problems) {
            std::cerr << "lbroute: " << text << std::endl;
            is_whole &= level == Level::notice;
        }
    }
    return shared::end_output("lbroute") && is_whole ? 0 : 1;
}

}  // namespace lbroute
