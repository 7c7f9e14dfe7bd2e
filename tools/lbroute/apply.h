#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "lbroute/steps.h"

/// Puts a plan into force: stage by stage, each from what the kernel answered to the one before.
/// The kernel stands behind a function, so this runs on a desk.
namespace lbroute {

/// Takes steps in their order and gives one answer for each.
using TakeSteps = std::function<std::vector<Answer>(std::span<const Step>)>;

struct Application {
    Wanted wanted;             ///< with what became of each route and next hop
    KernelState kernel;        ///< as it is now
    Mode mode = Mode::sticky;  ///< what the kernel was able to
    std::string mode_reason;   ///< why it is less than asked for
    std::vector<Step> taken;   ///< every step that the kernel took
    std::vector<std::string> failed_removals;
};

/// The steps that should have taken something away and did not, as a command each, with the reason.
/// There is an answer for each step; `kernel` names the links.
std::vector<std::string> failed_removals(std::span<const Step> steps,
                                         std::span<const Answer> answers,
                                         const KernelState& kernel);

/// `plan` makes the plan for a mode: less than `mode` where the kernel knows no resilient groups,
/// or no next-hop objects at all.
Application put_into_force(const std::function<Wanted(Mode)>& plan, KernelState kernel,
                           const std::vector<KernelRoute>& foreign, Mode mode,
                           const TakeSteps& take);

}  // namespace lbroute
