// Keeps the module loaded until the process ends.
#pragma once

namespace ostrel {

// Node unloads an add-on when the last environment that loaded it ends (a
// Worker that was its only user). A job thread that clean-up had to leave
// running, stuck in a system call past its grace period, would then return
// into unmapped code; the runtime pins the module before leaving one
// behind. Failure is logged: nothing else can be done about it.
void pin_module() noexcept;

}  // namespace ostrel
