#pragma once

#include <filesystem>

namespace vellum {

// Where this program keeps what must outlive a run, such as the Quick
// Check's undo journals: $XDG_STATE_HOME/vellum-check, else
// ~/.local/state/vellum-check (the home folder from the password database
// when HOME is unset).
std::filesystem::path userStateFolder();

}  // namespace vellum
