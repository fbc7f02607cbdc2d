#include "CommandLine.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionException.h>
#include <Poco/Util/OptionProcessor.h>
#include <Poco/Util/OptionSet.h>

#include <sstream>

namespace Agent {

namespace {

using Poco::Util::Option;

Poco::Util::OptionSet MakeOptions() {
    Poco::Util::OptionSet options;
    options.addOption(Option("prefix", "",
                             "installation directory (default: the directory above bin/ of the "
                             "executable, else /usr/local/corvane/)")
                          .argument("DIR"));
    options.addOption(
        Option("config", "", "agent settings (default: <prefix>/conf/agent.json)").argument("FILE"));
    options.addOption(
        Option("policy-dir", "", "policy directory (default: <prefix>/conf/policies)").argument("DIR"));
    options.addOption(Option("module", "",
                             "load this module; repeatable (default: every lib*.so in "
                             "<prefix>/module/)")
                          .argument("FILE")
                          .repeatable(true));
    options.addOption(Option("alerts", "",
                             "alert file, or - for standard output only (default: from the "
                             "settings)")
                          .argument("FILE"));
    options.addOption(
        Option("log-level", "", "error, warning, notice, information, debug or trace").argument("LEVEL"));
    options.addOption(Option("check", "",
                             "check the settings and every policy in the policy directory, print "
                             "each finding as FILE: error|warning: key: what, and exit (1 on errors: "
                             "what the agent would refuse)"));
    options.addOption(Option("strict", "", "with --check: exit 1 on warnings too"));
    options.addOption(Option("unit", "",
                             "with --check: report paths the agent writes outside this systemd "
                             "unit's ReadWritePaths (default: the installed corvane-agent.service, "
                             "when it runs this executable)")
                          .argument("FILE"));
    options.addOption(Option("once", "",
                             "run each plug-in task's check once over this machine, write its "
                             "alerts to --alerts (default: standard output), and exit; a running "
                             "service's spool, sinks and metrics port are left alone"));
    options.addOption(Option("version", "V", "show the version and the revision it was built from"));
    options.addOption(Option("help", "h", "show this help and exit"));
    return options;
}

void Store(const std::string& name, const std::string& value, AgentOptions& options) {
    if (name == "prefix") {
        options.prefix = value;
    } else if (name == "config") {
        options.config = value;
    } else if (name == "policy-dir") {
        options.policyDir = value;
    } else if (name == "module") {
        options.modules.push_back(value);
    } else if (name == "alerts") {
        options.alerts = value;
    } else if (name == "log-level") {
        options.logLevel = value;
    } else if (name == "help") {
        options.help = true;
    } else if (name == "version") {
        options.version = true;
    } else if (name == "check") {
        options.check = true;
    } else if (name == "once") {
        options.once = true;
    } else if (name == "strict") {
        options.strict = true;
    } else if (name == "unit") {
        options.unit = value;
    }
}

}  // namespace

bool CommandLine::Parse(const std::vector<std::string>& args, AgentOptions& options, std::string& error) {
    const Poco::Util::OptionSet set = MakeOptions();
    Poco::Util::OptionProcessor processor(set);
    processor.setUnixStyle(true);
    try {
        for (const std::string& arg : args) {
            std::string name;
            std::string value;
            if (!processor.process(arg, name, value)) {
                error = "unexpected argument \"" + arg + "\"";
                return false;
            }
            if (name.empty()) {
                continue;
            }
            if (value.empty() && !set.getOption(name).takesArgument()) {
                Store(name, value, options);
                continue;
            }
            if (value.empty()) {
                error = "option --" + name + " needs a value";
                return false;
            }
            Store(name, value, options);
        }
        processor.checkRequired();
    } catch (const Poco::Util::OptionException& failure) {
        error = failure.displayText();
        return false;
    }
    if (options.check && options.once) {
        error = "--check and --once exclude each other";
        return false;
    }
    if ((options.strict || !options.unit.empty()) && !options.check) {
        error = std::string(options.strict ? "--strict" : "--unit") + " goes with --check";
        return false;
    }
    if (!options.logLevel.empty()) {
        try {
            Poco::Logger::parseLevel(options.logLevel);
        } catch (const Poco::Exception&) {
            error = "unknown log level \"" + options.logLevel + "\"";
            return false;
        }
    }
    return true;
}

std::string CommandLine::Usage() {
    const Poco::Util::OptionSet set = MakeOptions();
    Poco::Util::HelpFormatter formatter(set);
    formatter.setUnixStyle(true);
    formatter.setCommand("corvane-agent");
    formatter.setUsage("[OPTIONS]");
    formatter.setHeader(
        "The host-security agent: loads its modules, delivers their policies and writes their "
        "alerts. SIGHUP re-reads the settings and the policy directory; SIGUSR1 reopens the alert files "
        "(after logrotate); SIGTERM or SIGINT stops it.\n"
        "Exit status: 0 done; 1 --check found errors (or warnings, with --strict), or --once could not "
        "finish or had a policy refused; 2 the agent could not start (usage error, a --config or "
        "--policy-dir that does not exist, a module that cannot be loaded, no plug-in module, another "
        "agent holds the alert spool).");
    std::ostringstream text;
    formatter.format(text);
    return text.str();
}

}  // namespace Agent
