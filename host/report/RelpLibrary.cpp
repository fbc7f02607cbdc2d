#include "RelpLibrary.h"

#include "sdk/LazyLibrary.h"

namespace Agent {

const RelpLibrary* RelpLibrary::Get(std::string& error) {
    static SDK::LoadedTable<RelpLibrary> table;
    return table.Get(error, [](RelpLibrary& relp, std::string& loadError) {
        SDK::LazyLibrary lib("librelp.so.0");
        return lib.Open(loadError) && lib.Resolve("relpEngineConstruct", relp.engine_construct, loadError) &&
               lib.Resolve("relpEngineDestruct", relp.engine_destruct, loadError) &&
               lib.Resolve("relpEngineSetDbgprint", relp.engine_set_debug_print, loadError) &&
               lib.Resolve("relpEngineSetEnableCmd", relp.engine_set_enable_cmd, loadError) &&
               lib.Resolve("relpEngineSetOnErr", relp.engine_set_on_err, loadError) &&
               lib.Resolve("relpEngineCltConstruct", relp.client_construct, loadError) &&
               lib.Resolve("relpEngineCltDestruct", relp.client_destruct, loadError) &&
               lib.Resolve("relpCltSetTimeout", relp.client_set_timeout, loadError) &&
               lib.Resolve("relpCltSetWindowSize", relp.client_set_window_size, loadError) &&
               lib.Resolve("relpCltSetUsrPtr", relp.client_set_user, loadError) &&
               lib.Resolve("relpCltConnect", relp.client_connect, loadError) &&
               lib.Resolve("relpCltSendSyslog", relp.client_send_syslog, loadError);
    });
}

}  // namespace Agent
