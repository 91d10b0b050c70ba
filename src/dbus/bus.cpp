#include "bus.hpp"

#include "binding.hpp"
#include "common/logging.hpp"
#include "convert.hpp"

#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>
#include <systemd/sd-bus.h>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <optional>

namespace hwtopod::dbus
{

namespace
{

using Descriptor = boost::asio::posix::stream_descriptor;

// One wait at a time for each kind of readiness; process runs when it comes.
template <typename Process>
void waitFor(Descriptor& descriptor, Descriptor::wait_type type, bool& pending,
             Process process)
{
    if (pending)
    {
        return;
    }
    pending = true;
    descriptor.async_wait(type, [&pending,
                                 process](const boost::system::error_code& ec) {
        pending = false;
        if (!ec)
        {
            process();
        }
    });
}
} // namespace

std::string signatureOf(const PropertyValue& value)
{
    return signatureOfValue(value);
}

bool isValidMemberName(const std::string& name)
{
    return sd_bus_member_name_is_valid(name.c_str()) == 1;
}

// Waits on the bus's file descriptors and its next time-out on the
// io_context.
struct Connection::Waiter
{
    Waiter(boost::asio::io_context& io, const binding::PollData& data) :
        descriptor(io, data.fd), timer(io)
    {
        if (data.wakeFd >= 0)
        {
            wake.emplace(io, data.wakeFd);
        }
    }
    ~Waiter()
    {
        // The descriptors belong to the bus, not to us.
        boost::system::error_code ignored;
        descriptor.cancel(ignored);
        descriptor.release();
        if (wake)
        {
            wake->cancel(ignored);
            wake->release();
        }
    }
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    Waiter(Waiter&&) = delete;
    Waiter& operator=(Waiter&&) = delete;

    boost::asio::posix::stream_descriptor descriptor;
    // Readable when the binding has queued messages to process.
    std::optional<boost::asio::posix::stream_descriptor> wake;
    boost::asio::steady_timer timer;
    bool readPending = false;
    bool writePending = false;
    bool wakePending = false;
};

std::shared_ptr<Connection> Connection::openSystemBus(
    boost::asio::io_context& io)
{
    auto bus = translateErrors([]() { return binding::systemBus(); });
    return std::shared_ptr<Connection>(new Connection(io, std::move(bus)));
}

Connection::Connection(boost::asio::io_context& io,
                       std::unique_ptr<sdbus::IConnection> bus) :
    io(io),
    bus(std::move(bus))
{
    waiter = std::make_unique<Waiter>(io, binding::pollData(*this->bus));
}

Connection::~Connection()
{
    waiter.reset();
}

void Connection::requestName(const std::string& name, std::uint64_t flags)
{
    // The binding asks for a name with no flags, so the bus daemon's own
    // method is called, with its flag values for the sd-bus ones.
    constexpr std::uint32_t allowReplacement = 1;
    constexpr std::uint32_t replaceExisting = 2;
    constexpr std::uint32_t doNotQueue = 4;
    const std::uint32_t daemonFlags =
        doNotQueue |
        ((flags & SD_BUS_NAME_REPLACE_EXISTING) != 0 ? replaceExisting : 0) |
        ((flags & SD_BUS_NAME_ALLOW_REPLACEMENT) != 0 ? allowReplacement : 0);
    std::uint32_t reply = run([&]() {
        return translateErrors([&]() {
            auto proxy = binding::createProxy(*bus, "org.freedesktop.DBus",
                                              "/org/freedesktop/DBus");
            auto call = binding::createMethodCall(
                *proxy, "org.freedesktop.DBus", "RequestName");
            call << name << daemonFlags;
            auto reply = proxy->callMethod(call);
            std::uint32_t result = 0;
            reply >> result;
            return result;
        });
    });
    // 1: primary owner now; 4: owner already.
    if (reply != 1 && reply != 4)
    {
        throw Error("the name " + name + " is owned by another process");
    }
}

std::thread::id Connection::loopThreadId()
{
    std::lock_guard lock(inlineMutex);
    return loopThread;
}

void Connection::enqueue(std::function<void()> task,
                         std::function<void(std::exception_ptr)> fail)
{
    const auto number = nextTask++;
    pending.emplace(number, std::move(fail));
    boost::asio::post(io, [this, number, task = std::move(task)]() {
        {
            std::lock_guard lock(inlineMutex);
            if (pending.erase(number) == 0)
            {
                return;
            }
        }
        task();
        flush();
    });
}

void Connection::endLoop()
{
    std::map<std::uint64_t, std::function<void(std::exception_ptr)>> failed;
    {
        std::lock_guard lock(inlineMutex);
        loop = LoopState::ended;
        loopThread = {};
        failed.swap(pending);
    }
    for (auto& [number, fail] : failed)
    {
        fail(std::make_exception_ptr(Error(loopEndedText)));
    }
}

void Connection::release(const std::function<void()>& function)
{
    try
    {
        run(function);
    }
    catch (const Error&)
    {
        std::lock_guard lock(inlineMutex);
        function();
    }
}

void Connection::flush()
{
    process();
}

void Connection::process()
{
    while (binding::processPending(*bus))
    {}
    arm();
}

void Connection::arm()
{
    const auto pollData = binding::pollData(*bus);
    auto again = [this]() { process(); };
    waitFor(waiter->descriptor, Descriptor::wait_read, waiter->readPending,
            again);
    if ((pollData.events & POLLOUT) != 0)
    {
        waitFor(waiter->descriptor, Descriptor::wait_write,
                waiter->writePending, again);
    }
    if (waiter->wake)
    {
        waitFor(*waiter->wake, Descriptor::wait_read, waiter->wakePending,
                again);
    }
    if (pollData.timeout)
    {
        waiter->timer.expires_after(*pollData.timeout);
        waiter->timer.async_wait([this](const boost::system::error_code& ec) {
            if (!ec)
            {
                process();
            }
        });
    }
    else
    {
        waiter->timer.cancel();
    }
}

void Connection::runLoop()
{
    {
        std::lock_guard lock(inlineMutex);
        loopThread = std::this_thread::get_id();
        loop = LoopState::running;
    }
    struct Stopped
    {
        Connection& connection;
        ~Stopped()
        {
            connection.endLoop();
        }
    } stopped{*this};
    boost::asio::post(io, [this]() { process(); });
    io.run();
}

Interface::Interface(std::shared_ptr<Connection> connection, std::string path,
                     std::string name) :
    connection(std::move(connection)),
    objectPath(std::move(path)), interfaceName(std::move(name))
{}

Interface::~Interface()
{
    if (object)
    {
        connection->release([this]() { object.reset(); });
    }
}

bool Interface::registerProperty(const std::string& name, PropertyValue value)
{
    return connection->run([&]() {
        return addProperty(name, std::move(value));
    });
}

bool Interface::initialize()
{
    return connection->run([this]() { return announce(); });
}

bool Interface::initialize(
    std::vector<std::pair<std::string, PropertyValue>> values)
{
    return connection->run([&]() {
        for (auto& [name, value] : values)
        {
            addProperty(name, std::move(value));
        }
        return announce();
    });
}

bool Interface::addProperty(const std::string& name, PropertyValue value)
{
    if (initialized || !isValidMemberName(name))
    {
        return false;
    }
    auto found = std::find_if(properties.begin(), properties.end(),
                              [&](const auto& p) { return p.first == name; });
    if (found != properties.end())
    {
        return false;
    }
    properties.emplace_back(name, std::move(value));
    return true;
}

bool Interface::announce()
{
    if (initialized)
    {
        return false;
    }
    translateErrors([this]() {
        object = binding::createObject(connection->raw(), objectPath);
        // No setter: the properties are read-only for other clients.
        std::vector<binding::Property> members;
        for (std::size_t i = 0; i < properties.size(); ++i)
        {
            const auto& [name, value] = properties[i];
            members.push_back({name,
                               signatureOf(value),
                               [this, i](sdbus::PropertyGetReply& reply) {
                std::visit([&reply](const auto& v) { reply << v; },
                           properties[i].second);
                               },
                               {}});
        }
        binding::addInterface(*object, interfaceName, members);
        binding::finishRegistration(*object);
        binding::emitInterfacesAdded(*object, {interfaceName});
    });
    initialized = true;
    return true;
}

bool Interface::isInitialized() const
{
    return connection->run([this]() { return initialized; });
}

bool Interface::hasProperty(const std::string& name) const
{
    return connection->run([&]() {
        return std::any_of(properties.begin(), properties.end(),
                           [&](const auto& p) { return p.first == name; });
    });
}

bool Interface::setProperty(const std::string& name, PropertyValue value)
{
    return connection->run([&]() {
        auto found =
            std::find_if(properties.begin(), properties.end(),
                         [&](const auto& p) { return p.first == name; });
        if (found == properties.end() || found->second.index() != value.index())
        {
            return false;
        }
        if (found->second == value)
        {
            return false;
        }
        found->second = std::move(value);
        if (initialized)
        {
            translateErrors([&]() {
                binding::emitPropertiesChanged(*object, interfaceName, {name});
            });
        }
        return true;
    });
}

ObjectServer::ObjectServer(std::shared_ptr<Connection> connection) :
    connection(std::move(connection))
{
    this->connection->run([this]() {
        translateErrors([this]() {
            root = binding::createObject(this->connection->raw(), "/");
            root->addObjectManager();
        });
    });
}

ObjectServer::~ObjectServer()
{
    connection->release([this]() { root.reset(); });
}

std::shared_ptr<Interface> ObjectServer::addInterface(const std::string& path,
                                                      const std::string& name)
{
    return std::make_shared<Interface>(connection, path, name);
}

Match::Match(std::shared_ptr<Connection> connection, const std::string& rule,
             InterfacesAddedHandler handler) :
    connection(std::move(connection))
{
    this->connection->run([&]() {
        translateErrors([&]() {
            auto raw = binding::addMatch(
                this->connection->raw(), rule,
                [handler = std::move(handler)](sdbus::Message& message) {
                std::map<std::string, std::map<std::string, sdbus::Variant>>
                    interfaces;
                if (std::string(message.getMemberName()) == "PropertiesChanged")
                {
                    std::string interface;
                    message >> interface >> interfaces[interface];
                    handler(std::string(message.getPath()),
                            toInterfaceProperties(interfaces));
                    return;
                }
                sdbus::ObjectPath path;
                message >> path >> interfaces;
                handler(path, toInterfaceProperties(interfaces));
                });
            slot = std::shared_ptr<void>(raw.release(), raw.get_deleter());
        });
    });
}

Match::~Match()
{
    connection->release([this]() { slot.reset(); });
}

} // namespace hwtopod::dbus
