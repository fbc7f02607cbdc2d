#pragma once

#include <stddef.h>  // librelp.h uses size_t without including it

#include <librelp.h>

#include <string>

namespace Agent {

// librelp, loaded when a RELP sink first delivers instead of at start-up: it
// brings GnuTLS and OpenSSL (about 2 MiB of resident memory with their
// dependencies) that an agent without a RELP sink does not need, as
// KafkaLibrary and TlsLibrary do for theirs.
struct RelpLibrary {
    decltype(&relpEngineConstruct) engine_construct;
    decltype(&relpEngineDestruct) engine_destruct;
    decltype(&relpEngineSetDbgprint) engine_set_debug_print;
    decltype(&relpEngineSetEnableCmd) engine_set_enable_cmd;
    decltype(&relpEngineSetOnErr) engine_set_on_err;
    decltype(&relpEngineCltConstruct) client_construct;
    decltype(&relpEngineCltDestruct) client_destruct;
    decltype(&relpCltSetTimeout) client_set_timeout;
    decltype(&relpCltSetWindowSize) client_set_window_size;
    decltype(&relpCltSetUsrPtr) client_set_user;
    decltype(&relpCltConnect) client_connect;
    decltype(&relpCltSendSyslog) client_send_syslog;

    // The loaded library, or null with the reason in `error`.
    static const RelpLibrary* Get(std::string& error);
};

}  // namespace Agent
