// Stand-in of the VPD service com.halvex.vpdd, for tests and the simulator.
//
// It publishes the FRU objects that a JSON file describes, one after the
// other and with the delays that file asks for, each with an InterfacesAdded
// signal from the object manager at "/". IpmiFruName can be set through
// org.freedesktop.DBus.Properties.Set. What it does is printed on standard
// output, one line per event, for tests to read:
//   published <path> at <ns>
//   set <path> <interface> IpmiFruName <value> at <ns>
//   call GetManagedObjects
//   call Get <path> <interface> <property> at <ns>
//   burst <count>
//   crashing
//   repeated <round>
// An object marked "hold" waits for SIGUSR1 before it is published. For
// <ns> is the CLOCK_MONOTONIC time in nanoseconds, for a published object
// taken right before its signal is sent: benchmarks time the receiver
// from it and count the calls it made. For
// fault injection it can also send a burst of InterfacesAdded signals for
// objects it does not hold, end abruptly after some objects, or announce its
// objects again and again. The file's format is described in
// docs/simulation.md.

#include "common/jsonNumber.hpp"
#include "dbus/service.hpp"

#include <signal.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <variant>
#include <vector>

namespace
{

volatile std::sig_atomic_t released = 0;
volatile std::sig_atomic_t answerReleased = 0;

extern "C" void release(int /*signal*/)
{
    released = 1;
}

extern "C" void releaseAnswer(int /*signal*/)
{
    answerReleased = 1;
}

using Clock = std::chrono::steady_clock;

using hwtopod::dbus::Service;
using Value = hwtopod::DbusVariant;

using Properties = std::map<std::string, Value>;

struct FruObject
{
    std::string path;
    // Interface name to its properties.
    std::map<std::string, Properties> interfaces;
    std::chrono::milliseconds delay{0};
    // Published only after SIGUSR1 has come.
    bool hold = false;
};

struct Configuration
{
    std::chrono::milliseconds startDelay{0};
    std::chrono::milliseconds interval{0};
    std::vector<FruObject> objects;
    // Signals sent before the first object, for paths that have no object.
    std::size_t burst = 0;
    // Ends the process with SIGABRT once this many objects are published.
    std::optional<std::size_t> crashAfter;
    // Announces every object again after each interval, count rounds
    // (0: without end).
    std::chrono::milliseconds repeatInterval{0};
    std::size_t repeatCount = 0;
    // GetManagedObjects is answered only after SIGUSR2 has come: a test can
    // act while the caller waits for the answer.
    bool holdAnswer = false;
};

constexpr auto busName = "com.halvex.vpdd";
constexpr auto interfacePrefix = "com.halvex.vpdd.";

void say(const std::string& line)
{
    std::cout << line << std::endl;
}

// " at " and the monotonic clock in nanoseconds.
std::string stamp()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return " at " +
           std::to_string(static_cast<std::int64_t>(now.tv_sec) * 1000000000 +
                          now.tv_nsec);
}

std::chrono::milliseconds seconds(const nlohmann::json& holder, const char* key)
{
    auto found = holder.find(key);
    if (found == holder.end())
    {
        return std::chrono::milliseconds(0);
    }
    // Whole milliseconds of a day at most: enough for any scenario, and
    // the conversion below stays in range.
    const double given = found->is_number() ? found->get<double>() : -1.0;
    if (!(given >= 0.0 && given <= 86400.0))
    {
        throw std::runtime_error(std::string(key) +
                                 " is no number of seconds "
                                 "up to a day: " +
                                 found->dump());
    }
    return std::chrono::milliseconds(static_cast<std::int64_t>(given * 1000.0));
}

template <typename T>
T number(const nlohmann::json& value)
{
    if (auto checked = hwtopod::jsonInteger<T>(value))
    {
        return *checked;
    }
    throw std::runtime_error("value out of range: " + value.dump());
}

// A value given with its D-Bus type code.
Value typedValue(const std::string& type, const nlohmann::json& value)
{
    if (type == "y")
    {
        return number<std::uint8_t>(value);
    }
    if (type == "n")
    {
        return number<std::int16_t>(value);
    }
    if (type == "q")
    {
        return number<std::uint16_t>(value);
    }
    if (type == "i")
    {
        return number<std::int32_t>(value);
    }
    if (type == "u")
    {
        return number<std::uint32_t>(value);
    }
    if (type == "x")
    {
        return number<std::int64_t>(value);
    }
    if (type == "t")
    {
        return number<std::uint64_t>(value);
    }
    if (type == "b")
    {
        return value.get<bool>();
    }
    if (type == "d")
    {
        return value.get<double>();
    }
    if (type == "s")
    {
        return value.get<std::string>();
    }
    if (type == "as")
    {
        return value.get<std::vector<std::string>>();
    }
    if (type == "ay")
    {
        return value.get<std::vector<std::uint8_t>>();
    }
    throw std::runtime_error("unknown type code " + type);
}

// A property value: {"type": code, "value": v}, or a bare value whose type
// follows from its JSON kind.
Value propertyValue(const nlohmann::json& given)
{
    if (given.is_object())
    {
        return typedValue(given.at("type").get<std::string>(),
                          given.at("value"));
    }
    if (given.is_string())
    {
        return given.get<std::string>();
    }
    if (given.is_boolean())
    {
        return given.get<bool>();
    }
    if (given.is_number_unsigned())
    {
        return given.get<std::uint64_t>();
    }
    if (given.is_number_integer())
    {
        return given.get<std::int64_t>();
    }
    if (given.is_number_float())
    {
        return given.get<double>();
    }
    if (given.is_array())
    {
        return given.get<std::vector<std::string>>();
    }
    throw std::runtime_error("no property value: " + given.dump());
}

Properties properties(const nlohmann::json& given)
{
    Properties result;
    for (const auto& [name, value] : given.items())
    {
        result.emplace(name, propertyValue(value));
    }
    return result;
}

Configuration readConfiguration(const std::string& file)
{
    std::ifstream stream(file);
    if (!stream)
    {
        throw std::runtime_error("cannot open " + file);
    }
    const auto document = nlohmann::json::parse(stream);
    Configuration configuration;
    configuration.startDelay = seconds(document, "startDelay");
    configuration.interval = seconds(document, "interval");
    configuration.burst =
        number<std::size_t>(document.value("burst", nlohmann::json(0)));
    if (document.contains("crashAfter"))
    {
        configuration.crashAfter = number<std::size_t>(document["crashAfter"]);
    }
    const auto repeat = document.value("repeat", nlohmann::json::object());
    configuration.repeatInterval = seconds(repeat, "interval");
    configuration.repeatCount =
        number<std::size_t>(repeat.value("count", nlohmann::json(0)));
    configuration.holdAnswer = document.value("holdAnswer", false);
    for (const auto& given : document.at("objects"))
    {
        FruObject object;
        object.path = given.at("path").get<std::string>();
        object.delay = seconds(given, "delay");
        object.hold = given.value("hold", false);
        const auto givenProperties =
            given.value("properties", nlohmann::json::object());
        auto own = properties(givenProperties);
        auto format = own.find("VpdFormat");
        if (format != own.end())
        {
            object.interfaces[interfacePrefix +
                              std::get<std::string>(format->second)] = own;
        }
        else if (!own.empty())
        {
            throw std::runtime_error(
                object.path + ": properties without VpdFormat");
        }
        const auto extra = given.value("interfaces", nlohmann::json::object());
        for (const auto& [name, more] : extra.items())
        {
            object.interfaces[name] = properties(more);
        }
        configuration.objects.push_back(std::move(object));
    }
    return configuration;
}

// IpmiFruName, when it is a string, can also be set.
Service::Property property(const std::string& path,
                           const std::string& interface,
                           const std::string& name, const Value& value)
{
    Service::Property result{name, value, {}};
    if (name == "IpmiFruName" && std::holds_alternative<std::string>(value))
    {
        result.onSet = [path, interface](const Value& text) {
            say("set " + path + " " + interface + " IpmiFruName " +
                std::get<std::string>(text) + stamp());
        };
    }
    return result;
}

std::vector<std::string> interfaceNames(const FruObject& fru)
{
    std::vector<std::string> names;
    for (const auto& [interface, values] : fru.interfaces)
    {
        names.push_back(interface);
    }
    return names;
}

void publish(Service& service, const FruObject& fru)
{
    std::map<std::string, Service::Members> interfaces;
    for (const auto& [interface, values] : fru.interfaces)
    {
        auto& members = interfaces[interface];
        for (const auto& [name, value] : values)
        {
            members.properties.push_back(
                property(fru.path, interface, name, value));
        }
    }
    service.addObject(fru.path, interfaces);
    const auto sent = stamp();
    // Only the FRU's own interfaces, as the VPD service announces them.
    if (!fru.interfaces.empty())
    {
        service.emitInterfacesAdded(fru.path, interfaceNames(fru));
    }
    say("published " + fru.path + sent);
}

// InterfacesAdded from the object manager for a path that has no object,
// as fast as the bus takes them: the receiver must cope with a flood.
void sendBurst(Service& service, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
    {
        hwtopod::InterfaceProperties interfaces;
        interfaces[std::string(interfacePrefix) + "Burst"] = {
            {"VpdFormat", std::string("Burst")},
            {"SerialNumber", "B" + std::to_string(i)}};
        service.signalInterfacesAdded(
            "/com/halvex/vpdd/BURST_" + std::to_string(i), interfaces);
    }
    say("burst " + std::to_string(count));
}

} // namespace

// Records the calls the benchmarks and tests count.
// With hold, the answer to GetManagedObjects waits for SIGUSR2.
void recordCalls(Service& service, bool hold)
{
    service.watchCalls(
        "type='method_call',interface='org.freedesktop.DBus.ObjectManager',"
        "member='GetManagedObjects'",
        "", [hold](const std::string&, const hwtopod::dbus::Values&) {
            say("call GetManagedObjects");
            // Matches run before the object manager answers the call.
            while (hold && answerReleased == 0)
            {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        });
    service.watchCalls(
        "type='method_call',interface='org.freedesktop.DBus.Properties',"
        "member='Get'",
        "ss",
        [](const std::string& path, const hwtopod::dbus::Values& arguments) {
        say("call Get " + path + " " + std::get<std::string>(arguments.at(0)) +
            " " + std::get<std::string>(arguments.at(1)) + stamp());
        });
}

// The objects one after the other, as the configuration spaces them.
void publishAll(Service& service, const Configuration& configuration)
{
    std::size_t published = 0;
    bool first = true;
    for (const auto& fru : configuration.objects)
    {
        if (configuration.crashAfter == published)
        {
            say("crashing");
            std::abort();
        }
        auto wait = fru.delay + (first ? std::chrono::milliseconds(0)
                                       : configuration.interval);
        service.serveUntil(Clock::now() + wait);
        while (fru.hold && released == 0)
        {
            service.serveUntil(Clock::now() + std::chrono::milliseconds(50));
        }
        publish(service, fru);
        ++published;
        first = false;
    }
}

// Every object announced again, round after round.
void repeatRounds(Service& service, const Configuration& configuration)
{
    for (std::size_t round = 1;
         configuration.repeatInterval.count() > 0 &&
         (configuration.repeatCount == 0 || round <= configuration.repeatCount);
         ++round)
    {
        service.serveUntil(Clock::now() + configuration.repeatInterval);
        for (const auto& fru : configuration.objects)
        {
            if (!fru.interfaces.empty())
            {
                service.emitInterfacesAdded(fru.path, interfaceNames(fru));
            }
        }
        say("repeated " + std::to_string(round));
    }
}
int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::cerr << "usage: vpdd <objects.json>\n";
        return 2;
    }
    Configuration configuration;
    try
    {
        configuration = readConfiguration(argv[1]);
    }
    catch (const std::exception& e)
    {
        std::cerr << "vpdd: " << argv[1] << ": " << e.what() << "\n";
        return 2;
    }

    struct sigaction action
    {};
    action.sa_handler = release;
    ::sigaction(SIGUSR1, &action, nullptr);
    action.sa_handler = releaseAnswer;
    ::sigaction(SIGUSR2, &action, nullptr);

    std::this_thread::sleep_for(configuration.startDelay);
    Service service(busName);
    service.addObjectManager();
    recordCalls(service, configuration.holdAnswer);
    say("started");

    if (configuration.burst > 0)
    {
        sendBurst(service, configuration.burst);
    }
    publishAll(service, configuration);
    repeatRounds(service, configuration);
    service.serveUntil(Clock::time_point::max());
}
