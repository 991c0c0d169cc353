// Loads, on a thread of its own, the system DLLs the start-up needs only at its last steps
// (device notifications in user32, COM in ole32; both delay-loaded), so that their loading
// overlaps the dispatcher's connection to the service control manager instead of following it.
// Under Wine, user32's set-up is the costliest single step of the start (about 30 ms). It runs
// under the loader lock, so the start-up thread waits for it anyway as soon as it needs that lock
// (a new thread, a procedure lookup); started earlier, it only stalls the agent parameters.
#pragma once

namespace korva::win {

// Starts the loading thread and returns at once. Loads from the system folder only; a failure
// is harmless: the first call into the DLL loads it again, and reports what fails then.
void StartDllPreload();

}  // namespace korva::win
