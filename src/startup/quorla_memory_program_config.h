// The reader of the allocator's settings: binds the sixteen keys of the configuration file
// to the globals of startup/quorla_memory_settings.h and reads the file once, through the
// gate memory_check_program_config(). It only fills globals; each layer acts on them when
// it next reads them, so a setting read late acts late.
//
// The file is /etc/libquorlamalloc.conf, or the file named by the environment variable
// QUORLAMALLOC_CONF when that is set and not empty. A missing file is normal: the defaults
// then stand. Warnings about the file are written (the message level is 2 while it is
// read); from then on the library is silent (level 0).
#pragma once

#include "startup/quorla_program_config.h"

namespace quorla {

constexpr const char* k_str_memory_program_config_path = "/etc/libquorlamalloc.conf";
constexpr const char* k_str_memory_program_config_env = "QUORLAMALLOC_CONF";

// The file to read, decided now: getenv does not allocate.
const char* memory_program_config_path();

// The steps of memory_program_config_init() on the given engine and file: level 2, the "="
// form, the sixteen keys in order, restore_default, load, apply (every global is written,
// the defaults replacing the initial values), level 0, then the limits.
void memory_program_config_load(Program_config& config, const char* path);

}  // namespace quorla
