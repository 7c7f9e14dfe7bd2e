#include "lbroute/apply.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <map>
#include <variant>

#include "lbroute/commands.h"

namespace lbroute {

namespace {

class Applier {
  public:
    Applier(const std::function<Wanted(Mode)>& plan, KernelState kernel,
            const std::vector<KernelRoute>& foreign, Mode mode, const TakeSteps& take)
        : plan_(plan), foreign_(foreign), take_(take) {
        done_.kernel = std::move(kernel);
        done_.mode = mode;
    }

    Application run() {
        // Each round that does not come to the end leaves the mode less than it was.
        do {
            done_.wanted = plan_(done_.mode);
            refuse_taken_places(done_.wanted, done_.kernel, foreign_);
        } while (!put_hops() || !put_groups());
        put_routes();
        remove_leftovers();
        return std::move(done_);
    }

  private:
    std::vector<Answer> take(const std::vector<Step>& steps) {
        std::vector<Answer> answers = take_(steps);
        answers.resize(steps.size(), {.error = EIO, .reason = "no answer of the kernel"});
        for (std::size_t i = 0; i < steps.size(); ++i) {
            if (answers[i].error == 0) {
                apply_step(done_.kernel, steps[i]);
                done_.taken.push_back(steps[i]);
            }
        }
        return answers;
    }

    /// False where the mode had to become less.
    bool put_hops() {
        constexpr int tries = 20;  // each either takes a next hop out or a number
        for (int attempt = 0; attempt < tries; ++attempt) {
            const std::vector<Step> steps = hop_steps(done_.wanted, done_.kernel, done_.mode);
            if (steps.empty()) {
                return true;
            }
            const std::vector<Answer> answers = take(steps);
            for (std::size_t i = 0; i < steps.size(); ++i) {
                const HopObject& hop = std::get<AddHop>(steps[i]).hop;
                if (answers[i].error == EOPNOTSUPP) {
                    return lessen(Mode::plain, "this kernel has no next-hop objects");
                }
                if (answers[i].error == EEXIST) {
                    done_.kernel.foreign_ids.push_back(hop.id);
                } else if (answers[i].error != 0) {
                    refuse_hop(done_.wanted.routes, hop.gateway, hop.link, answers[i].reason);
                }
            }
        }
        for (const Step& step : hop_steps(done_.wanted, done_.kernel, done_.mode)) {
            const HopObject& hop = std::get<AddHop>(step).hop;
            refuse_hop(done_.wanted.routes, hop.gateway, hop.link, "no number is free for it");
        }
        return true;
    }

    bool put_groups() {
        const std::vector<Step> steps = group_steps(done_.wanted, done_.kernel, done_.mode);
        const std::vector<Answer> answers = take(steps);
        std::map<std::uint32_t, std::string> refused;
        for (std::size_t i = 0; i < steps.size(); ++i) {
            if (answers[i].error == 0) {
                continue;
            }
            const auto& step = std::get<PutGroup>(steps[i]);
            if (lacks_resilience(step, answers[i].error)) {
                return lessen(Mode::group, "this kernel has no resilient next-hop groups");
            }
            refused.emplace(step.group.id, answers[i].reason);
        }
        for (PlannedRoute& route : done_.wanted.routes) {
            const auto found = refused.find(route.group_id);
            if (route.group_id != 0 && found != refused.end()) {
                route.refusal = found->second;
            }
        }
        return true;
    }

    /// Whether the kernel takes as a simple group what it refused as a resilient one.
    bool lacks_resilience(const PutGroup& step, int error) {
        const bool may_lack =
            step.group.is_resilient && !step.replaces && (error == EOPNOTSUPP || error == EINVAL);
        if (!may_lack) {
            return false;
        }
        PutGroup simple = step;
        simple.group.is_resilient = false;
        const std::vector<Step> probe{simple};
        const bool is_taken = take(probe)[0].error == 0;
        if (is_taken) {
            const std::vector<Step> undo{RemoveNextHop{step.group.id}};
            take(undo);
        }
        return is_taken;
    }

    bool lessen(Mode mode, const char* reason) {
        done_.mode = mode;
        done_.mode_reason = reason;
        return false;
    }

    void put_routes() {
        constexpr int tries = 2;
        for (int attempt = 0; attempt < tries; ++attempt) {
            const std::vector<Step> steps =
                route_steps(done_.wanted, done_.kernel, foreign_, done_.mode);
            const std::vector<Answer> answers = take(steps);
            bool is_worth_another = false;
            for (std::size_t i = 0; i < steps.size(); ++i) {
                if (answers[i].error != 0) {
                    is_worth_another |=
                        note_refusal(std::get<PutRoute>(steps[i]).route, answers[i], attempt == 0);
                }
            }
            if (!is_worth_another) {
                return;
            }
        }
    }

    /// True where the route may be taken without the next hops that were found at fault.
    bool note_refusal(const KernelRoute& refused, const Answer& answer, bool may_look) {
        if (may_look && refused.hops.size() > 1 && find_hops_at_fault(refused)) {
            return true;
        }
        for (PlannedRoute& route : done_.wanted.routes) {
            if (refused.is_at_place_of(route.place())) {
                route.refusal = answer.error == EEXIST ? place_is_taken : answer.reason;
            }
        }
        return false;
    }

    /// The kernel refuses a plain route as a whole. Next-hop objects, made and taken away at once,
    /// tell which of its next hops are at fault.
    bool find_hops_at_fault(const KernelRoute& refused) {
        Wanted probe;
        PlannedRoute& route = probe.routes.emplace_back();
        for (const PathHop& hop : refused.hops) {
            PlannedHop& planned = route.hops.emplace_back();
            planned.gateway = hop.gateway.value_or(Address{});
            planned.link = hop.link;
        }
        const std::vector<Step> steps = hop_steps(probe, done_.kernel, Mode::group);
        const std::vector<Answer> answers = take_(steps);
        bool has_found = false;
        std::vector<Step> undo;
        for (std::size_t i = 0; i < std::min(steps.size(), answers.size()); ++i) {
            const HopObject& hop = std::get<AddHop>(steps[i]).hop;
            if (answers[i].error == 0) {
                undo.push_back(RemoveNextHop{hop.id});
            } else if (answers[i].error != EOPNOTSUPP && answers[i].error != EEXIST &&
                       answers[i].error != ENETDOWN) {
                has_found |=
                    refuse_hop(done_.wanted.routes, hop.gateway, hop.link, answers[i].reason);
            }
        }
        take_(undo);
        return has_found;
    }

    void remove_leftovers() {
        const std::vector<Step> steps = removal_steps(done_.wanted, done_.kernel);
        done_.failed_removals = failed_removals(steps, take(steps), done_.kernel);
    }

    const std::function<Wanted(Mode)>& plan_;
    const std::vector<KernelRoute>& foreign_;
    const TakeSteps& take_;
    Application done_;
};

}  // namespace

std::vector<std::string> failed_removals(std::span<const Step> steps,
                                         std::span<const Answer> answers,
                                         const KernelState& kernel) {
    std::vector<std::string> failed;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        // Gone meanwhile is gone.
        if (answers[i].error != 0 && answers[i].error != ENOENT && answers[i].error != ESRCH) {
            failed.push_back(command_of(steps[i], kernel, "") + ": " + answers[i].reason);
        }
    }
    return failed;
}

Application put_into_force(const std::function<Wanted(Mode)>& plan, KernelState kernel,
                           const std::vector<KernelRoute>& foreign, Mode mode,
                           const TakeSteps& take) {
    return Applier(plan, std::move(kernel), foreign, mode, take).run();
}

}  // namespace lbroute
