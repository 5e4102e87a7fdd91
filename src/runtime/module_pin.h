// Keeps the module loaded until the process ends.
#pragma once

namespace ostrel {

// Node unloads an add-on when the last environment that loaded it ends (a
// Worker that was its only user). Threads and callback objects of the module
// (a job stuck in a system call past clean-up, a COM callback a driver still
// holds, an SDK thread) would then return into unmapped code; the module
// pins itself at its first load instead. Failure is logged: nothing else
// can be done about it.
void pin_module() noexcept;

}  // namespace ostrel
