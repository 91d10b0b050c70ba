#include "service.hpp"

#include "binding.hpp"
#include "bus.hpp"
#include "convert.hpp"

#include <poll.h>

#include <array>

namespace hwtopod::dbus
{

struct Service::Published
{
    std::unique_ptr<sdbus::IObject> object;
};

namespace
{

Values readValues(sdbus::Message& message, const std::string& signature)
{
    Values values;
    for (const auto& type : completeTypes(signature))
    {
        values.push_back(readValue(message, type));
    }
    return values;
}

binding::Property property(const Service::Property& given)
{
    auto cell = std::make_shared<DbusVariant>(given.value);
    const auto signature = signatureOfValue(given.value);
    binding::Property item{
        given.name,
        signature,
        [cell](sdbus::PropertyGetReply& reply) { appendValue(reply, *cell); },
        {}};
    if (given.onSet)
    {
        item.setter = [cell, signature,
                       onSet = given.onSet](sdbus::PropertySetCall& call) {
            *cell = readValue(call, signature);
            onSet(*cell);
        };
    }
    return item;
}

binding::Method method(const Service::Method& given)
{
    return {given.name, given.inputSignature, given.outputSignature,
            [given](sdbus::MethodCall call) {
        auto reply = call.createReply();
        for (const auto& value :
             given.handler(readValues(call, given.inputSignature)))
        {
            appendValue(reply, value);
        }
        reply.send();
            }};
}
} // namespace

Service::Service(const std::string& name)
{
    translateErrors([&]() {
        bus = binding::systemBus();
        binding::requestName(*bus, name);
        root = binding::createObject(*bus, "/");
    });
}

Service::~Service() = default;

void Service::addObject(const std::string& path,
                        const std::map<std::string, Members>& interfaces)
{
    translateErrors([&]() {
        auto published = std::make_unique<Published>();
        published->object = binding::createObject(*bus, path);
        for (const auto& [interface, members] : interfaces)
        {
            std::vector<binding::Property> properties;
            for (const auto& given : members.properties)
            {
                properties.push_back(property(given));
            }
            std::vector<binding::Method> methods;
            for (const auto& given : members.methods)
            {
                methods.push_back(method(given));
            }
            binding::addInterface(*published->object, interface, properties,
                                  methods);
        }
        binding::finishRegistration(*published->object);
        objects[path] = std::move(published);
    });
}

void Service::emitInterfacesAdded(const std::string& path,
                                  const std::vector<std::string>& interfaces)
{
    translateErrors([&]() {
        binding::emitInterfacesAdded(*objects.at(path)->object, interfaces);
    });
}

void Service::addObjectManager()
{
    translateErrors([&]() { root->addObjectManager(); });
}

void Service::signalInterfacesAdded(const std::string& path,
                                    const InterfaceProperties& interfaces)
{
    translateErrors([&]() {
        std::map<std::string, std::map<std::string, sdbus::Variant>> values;
        for (const auto& [interface, properties] : interfaces)
        {
            for (const auto& [name, value] : properties)
            {
                values[interface][name] = toBindingVariant(value);
            }
        }
        auto signal = binding::createSignal(
            *root, "org.freedesktop.DBus.ObjectManager", "InterfacesAdded");
        signal << sdbus::ObjectPath(path) << values;
        signal.send();
    });
}

void Service::watchCalls(
    const std::string& rule, const std::string& signature,
    std::function<void(const std::string& path, const Values& arguments)>
        handler)
{
    translateErrors([&]() {
        auto slot = binding::addMatch(
            *bus, rule, [signature, handler](sdbus::Message& message) {
                handler(std::string(message.getPath()),
                        readValues(message, signature));
            });
        matches.emplace_back(slot.release(), slot.get_deleter());
    });
}

void Service::serveUntil(std::chrono::steady_clock::time_point deadline)
{
    while (true)
    {
        translateErrors([&]() {
            while (binding::processPending(*bus))
            {}
        });
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline)
        {
            return;
        }
        // Whole milliseconds, rounded up so that the deadline has passed when
        // the wait ends, and at most a day, which an int holds.
        auto wait = std::chrono::ceil<std::chrono::milliseconds>(
            std::min<std::chrono::steady_clock::duration>(
                deadline - now, std::chrono::hours(24)));
        const auto data = binding::pollData(*bus);
        if (data.timeout)
        {
            wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(
                                      *data.timeout));
        }
        std::array<pollfd, 2> fds{pollfd{data.fd, data.events, 0},
                                  pollfd{data.wakeFd, POLLIN, 0}};
        ::poll(fds.data(), data.wakeFd >= 0 ? 2 : 1,
               static_cast<int>(wait.count()));
    }
}

} // namespace hwtopod::dbus
