// SPDX-License-Identifier: MIT
#include "config.h"

#include "../arguments.h"

#include <array>
#include <cstring>
#include <getopt.h>
#include <memory>
#include <qzlib.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace mqtt
{
namespace
{

constexpr const char *USAGE =
    "Usage: mbus-mqtt --host HOST [OPTION]...\n"
    "Carry packets between this router's message bus and an MQTT broker, until SIGTERM or SIGINT.\n"
    "\n"
    "  --host HOST         the broker: name, address, or path of a local socket\n"
    "  --port PORT         default 1883, with TLS 8883\n"
    "  --ca PATH           use TLS, with the certificates of authorities in this file or directory\n"
    "  --cert FILE, --key FILE  this router's own certificate and its key\n"
    "  --login FILE        user in the first line, password in the second; its owner's alone\n"
    "  --clear-password    send the password without TLS, too\n"
    "  --id NAME           the router's name; default: the serial number in /tmp/device.info\n"
    "  --prefix TOPIC      what its topics begin with; default routers\n"
    "  --publish PATTERN   packets that go out, by name; may be given several times\n"
    "  --accept PATTERN    packets that may come in, by name; may be given several times\n"
    "  --status PATTERN    values of the modem's status that go out; default *\n"
    "  --queue BYTES       of events that wait while the line is cut; default 262144\n"
    "  --keepalive SECONDS of silence until the line is tried; default 60\n"
    "  --session SECONDS   that the broker keeps orders for an absent router; default 3600\n"
    "  --retry FIRST:LONGEST  pauses before connecting again, in seconds; default 2:120\n"
    "  --name NAME         the bridge's own name in the bus; default mbus-mqtt\n"
    "  --log FILE          log to FILE instead of syslog\n"
    "  -h, --help          print this text\n"
    "  --version           print the version\n"
    "\n"
    "Options with a value may stand in /tmp/config/mqtt.conf, too, as host=HOST; the command\n"
    "line counts more. For example:  mbus-mqtt --host broker.example.net --ca /etc/ssl/certs\n"
    "--login /data/mqtt.login --publish 'rssi*' --accept reboot\n"
    "\n"
    "The exit status is 0 after a signal or where the configuration says shutdown, 1 when it\n"
    "cannot start, and 2 for bad arguments or a bad configuration.\n";

constexpr const char *SERVICE = "mqtt";
constexpr size_t PATTERN_MAX = QZLIB_MBUS_PKG_NAME_SIZE;
constexpr size_t PREFIX_MAX = 64;
constexpr size_t ROUTER_MAX = 64;
constexpr size_t LOGIN_MAX = 1024;
constexpr unsigned long QUEUE_LEAST = 16384; // several of the largest packets
constexpr unsigned long QUEUE_MOST = 67108864;

// A setting's value, and the words for where it was found: "--port", "mqtt.conf: port".
struct Given {
    std::string where;
    std::string value;

    [[noreturn]] void refuse(const std::string &why) const
    {
        arguments::fail(TOOL, where + " " + printable(value) + ": " + why);
    }
    [[nodiscard]] unsigned long number(unsigned long min, unsigned long max) const
    {
        return arguments::number(TOOL, where.c_str(), value.c_str(), min, max);
    }
    // As a name, see fault_of_name().
    [[nodiscard]] const std::string &name(size_t max) const
    {
        if (const char *why = fault_of_name(value, max); why != nullptr)
            refuse(why);
        return value;
    }
    [[nodiscard]] const std::string &pattern() const
    {
        if (value.empty() || value.size() > PATTERN_MAX)
            refuse("a pattern has 1 to 64 characters");
        return value;
    }
};

std::string as_host(const Given &given)
{
    if (given.value.empty() || (given.value[0] == '/' && given.value.size() >= sizeof(sockaddr_un::sun_path)))
        given.refuse("no host, or too long a path");
    return given.value;
}

std::string as_router(const Given &given)
{
    if (given.name(ROUTER_MAX).find('/') != std::string::npos)
        given.refuse("a router's name holds no /");
    return given.value;
}

std::string as_prefix(const Given &given)
{
    const std::string &prefix = given.name(PREFIX_MAX);
    if (prefix.front() == '/' || prefix.back() == '/' || prefix.front() == '$')
        given.refuse("it begins with / or $, or ends with /");
    return prefix;
}

bool as_flag(const Given &given)
{
    return given.number(0, 1) == 1;
}

void set_retry(Config &config, const Given &given)
{
    const size_t colon = given.value.find(':');
    if (colon == std::string::npos)
        given.refuse("not two numbers FIRST:LONGEST");
    const auto part = [&given](const std::string &text) {
        return static_cast<unsigned>(Given{given.where, text}.number(1, 86400));
    };
    config.retry_first_s = part(given.value.substr(0, colon));
    config.retry_longest_s = part(given.value.substr(colon + 1));
    if (config.retry_first_s > config.retry_longest_s)
        given.refuse("the first pause is longer than the longest");
}

// User and password, a line each. Nobody but the file's owner may read it.
void read_login(Config &config, const Given &given)
{
    const std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(given.value.c_str(), "re"),
                                                      [](FILE *f) { return fclose(f); });
    struct stat facts {
    };
    if (file == nullptr || fstat(fileno(file.get()), &facts) != 0)
        given.refuse(strerror(errno));
    if (!S_ISREG(facts.st_mode))
        given.refuse("not a file");
    if ((facts.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        given.refuse("others than its owner may use it (chmod 600)");
    if (facts.st_uid != geteuid())
        given.refuse("it belongs to another user");
    const auto line = [&] {
        char text[LOGIN_MAX] = "";
        if (fgets(text, sizeof text, file.get()) == nullptr || strchr(text, '\n') == nullptr)
            given.refuse("not two lines, user and password");
        text[strcspn(text, "\r\n")] = '\0';
        return std::string(text);
    };
    config.user = line();
    config.password = line();
}

struct Setting {
    const char *name;
    void (*set)(Config &config, const Given &given);
    Patterns Config::*list = nullptr; // of the command line, it takes the place of the file's
};

constexpr std::array SETTINGS = {
    Setting{"host", [](Config &c, const Given &g) { c.host = as_host(g); }},
    Setting{"port", [](Config &c, const Given &g) { c.port = static_cast<int>(g.number(1, 65535)); }},
    Setting{"ca", [](Config &c, const Given &g) { c.ca = g.value; }},
    Setting{"cert", [](Config &c, const Given &g) { c.cert = g.value; }},
    Setting{"key", [](Config &c, const Given &g) { c.key = g.value; }},
    Setting{"login", read_login},
    Setting{"clear-password", [](Config &c, const Given &g) { c.clear_password = as_flag(g); }},
    Setting{"id", [](Config &c, const Given &g) { c.id = as_router(g); }},
    Setting{"prefix", [](Config &c, const Given &g) { c.prefix = as_prefix(g); }},
    Setting{"publish", [](Config &c, const Given &g) { c.publish.push_back(g.pattern()); }, &Config::publish},
    Setting{"accept", [](Config &c, const Given &g) { c.accept.push_back(g.pattern()); }, &Config::accept},
    Setting{"status", [](Config &c, const Given &g) { c.status.push_back(g.pattern()); }, &Config::status},
    Setting{"queue", [](Config &c, const Given &g) { c.queue_bytes = g.number(QUEUE_LEAST, QUEUE_MOST); }},
    Setting{"keepalive",
            [](Config &c, const Given &g) { c.keepalive_s = static_cast<int>(g.number(5, 3600)); }},
    Setting{"session",
            [](Config &c, const Given &g) { c.session_s = static_cast<unsigned>(g.number(0, 604800)); }},
    Setting{"retry", set_retry},
    Setting{"name", [](Config &c, const Given &g) { c.name = g.name(QZLIB_MBUS_NAME_SIZE); }},
    Setting{"log", [](Config &c, const Given &g) { c.log = g.value; }},
};

constexpr int FLAG = 'f'; // of the one option without a value

using Choices = std::vector<std::pair<const Setting *, Given>>;

Choices parse_arguments(int argc, char **argv)
{
    std::vector<option> options;
    for (const Setting &setting : SETTINGS) {
        const bool is_flag = setting.name == std::string_view("clear-password");
        options.push_back(
            {setting.name, is_flag ? no_argument : required_argument, nullptr, is_flag ? FLAG : 's'});
    }
    options.push_back({"help", no_argument, nullptr, 'h'});
    options.push_back({"version", no_argument, nullptr, 'V'});
    options.push_back({});
    Choices choices;
    argv[0] = const_cast<char *>(TOOL); // for getopt_long's own messages
    int chosen = 0;
    int which = 0;
    while ((chosen = getopt_long(argc, argv, "h", options.data(), &which)) != -1) {
        if (chosen == 'h')
            arguments::print(TOOL, USAGE);
        if (chosen == 'V')
            arguments::print(TOOL, "mbus-mqtt (qzlib) " QZLIB_VERSION "\n");
        if (chosen == '?')
            exit(arguments::WRONG_USAGE); // getopt_long has said why
        const Setting &setting = SETTINGS[static_cast<size_t>(which)];
        choices.push_back({&setting, {std::string("--") + setting.name, chosen == FLAG ? "1" : optarg}});
    }
    if (optind < argc)
        arguments::fail(TOOL, std::string(argv[optind]) + ": there are options only");
    return choices;
}

void set_all(Config &config, const Choices &choices)
{
    for (const auto &[setting, given] : choices)
        if (setting->list != nullptr)
            (config.*setting->list).clear();
    for (const auto &[setting, given] : choices)
        setting->set(config, given);
}

Choices parse_file()
{
    const std::string file = std::string(SERVICE) + ".conf: ";
    const std::unique_ptr<service_info, int (*)(service_info *)> store(qzlib_service_info_init(SERVICE),
                                                                       qzlib_service_info_uninit);
    const auto list = std::make_unique<service_param_list>();
    Choices choices;
    if (store == nullptr || qzlib_service_get_all_param(store.get(), list.get()) < 0)
        arguments::fail(TOOL, file + "out of memory", 1);
    for (uint32_t i = 0; i < list->count; ++i) {
        const std::string_view name = list->name[i];
        if (name == "shutdown") {
            debug_msg(QZLIB_LOG_INFO, TOOL, __LINE__, "%sshutdown", file.c_str());
            exit(0);
        }
        const Setting *found = nullptr;
        for (const Setting &setting : SETTINGS)
            if (setting.name == name)
                found = &setting;
        if (found == nullptr || list->type[i] != SERVICE_NODE_TOP || list->value[i] == nullptr)
            arguments::fail(TOOL, file + printable(name) + ": no parameter, or one without a value");
        choices.push_back({found, {file + found->name, list->value[i]}});
    }
    return choices;
}

} // namespace

Config configure(int argc, char **argv)
{
    Config config;
    const Choices choices = parse_arguments(argc, argv);
    set_all(config, parse_file());
    set_all(config, choices);
    if (config.host.empty())
        arguments::fail(TOOL, "no broker: it needs --host or host= in /tmp/config/mqtt.conf");
    if (config.id.empty()) {
        char serial[256] = "";
        if (qzlib_get_device_sn(serial) != 0)
            arguments::fail(TOOL, "no serial number in /tmp/device.info: it needs --id");
        config.id = as_router({"the serial number", serial});
    }
    if (config.cert.empty() != config.key.empty())
        arguments::fail(TOOL, "a certificate needs its key, and a key its certificate");
    if (!config.cert.empty() && config.ca.empty())
        arguments::fail(TOOL, "a certificate is of use with TLS only: it needs --ca");
    if (!config.user.empty() && config.ca.empty() && !config.is_local() && !config.clear_password)
        arguments::fail(TOOL, "the password would go out in clear: it needs --ca or --clear-password");
    if (config.port == 0)
        config.port = config.ca.empty() ? 1883 : 8883;
    return config;
}

} // namespace mqtt
