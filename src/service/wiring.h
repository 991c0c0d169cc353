// The hooks through which a subsystem reaches work that belongs to one above it, set by the service.
#pragma once

namespace korva {

// Hands device control's drive inventory file audit's start of a new drive (the filter's attach
// and the file-shadow program), the encrypted-volume handler device control's block of an
// unprotected volume, and the settings reader the rule for the settings file's path. `main` calls
// it before the settings are read, ServiceMain before anything else; the in-process tests call it
// too.
// The settings reaction, with the start-up's baseline, is handed to its watcher thread when that
// starts (service/settings_reaction.h).
void WireSubsystems();

}  // namespace korva
