#include "bus.hpp"

#include "common/logging.hpp"
#include "convert.hpp"

#include <poll.h>
#include <sdbus-c++/sdbus-c++.h>
#include <systemd/sd-bus.h>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>

namespace hwtopod::dbus
{

namespace
{
struct SignatureVisitor
{
    std::string operator()(const std::string&) const
    {
        return "s";
    }
    std::string operator()(bool) const
    {
        return "b";
    }
    std::string operator()(std::int32_t) const
    {
        return "i";
    }
    std::string operator()(std::uint32_t) const
    {
        return "u";
    }
    std::string operator()(std::uint64_t) const
    {
        return "t";
    }
    std::string operator()(std::int64_t) const
    {
        return "x";
    }
    std::string operator()(double) const
    {
        return "d";
    }
    std::string operator()(const std::vector<std::string>&) const
    {
        return "as";
    }
    std::string operator()(const std::vector<std::int64_t>&) const
    {
        return "ax";
    }
    std::string operator()(const std::vector<std::uint64_t>&) const
    {
        return "at";
    }
};

template <typename F>
auto translateErrors(F&& function)
{
    try
    {
        return function();
    }
    catch (const sdbus::Error& e)
    {
        throw Error(e.what());
    }
}
} // namespace

std::string signatureOf(const PropertyValue& value)
{
    return std::visit(SignatureVisitor{}, value);
}

bool isValidMemberName(const std::string& name)
{
    return sd_bus_member_name_is_valid(name.c_str()) == 1;
}

// Waits on the bus's file descriptor and its next time-out on the io_context.
struct Connection::Waiter
{
    Waiter(boost::asio::io_context& io, int fd) : descriptor(io, fd), timer(io)
    {}
    ~Waiter()
    {
        // The descriptor belongs to the bus, not to us.
        boost::system::error_code ignored;
        descriptor.cancel(ignored);
        descriptor.release();
    }
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    Waiter(Waiter&&) = delete;
    Waiter& operator=(Waiter&&) = delete;

    boost::asio::posix::stream_descriptor descriptor;
    boost::asio::steady_timer timer;
    bool readPending = false;
    bool writePending = false;
};

std::shared_ptr<Connection> Connection::openSystemBus(
    boost::asio::io_context& io)
{
    auto bus =
        translateErrors([]() { return sdbus::createSystemBusConnection(); });
    return std::shared_ptr<Connection>(new Connection(io, std::move(bus)));
}

Connection::Connection(boost::asio::io_context& io,
                       std::unique_ptr<sdbus::IConnection> bus) :
    io(io),
    bus(std::move(bus))
{
    waiter = std::make_unique<Waiter>(io, this->bus->getEventLoopPollData().fd);
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
            auto proxy = sdbus::createProxy(*bus, "org.freedesktop.DBus",
                                            "/org/freedesktop/DBus");
            std::uint32_t result = 0;
            proxy->callMethod("RequestName")
                .onInterface("org.freedesktop.DBus")
                .withArguments(name, daemonFlags)
                .storeResultsTo(result);
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
    while (bus->processPendingRequest())
    {}
    arm();
}

void Connection::arm()
{
    auto pollData = bus->getEventLoopPollData();
    if (!waiter->readPending)
    {
        waiter->readPending = true;
        waiter->descriptor.async_wait(
            boost::asio::posix::stream_descriptor::wait_read,
            [this](const boost::system::error_code& ec) {
            waiter->readPending = false;
            if (!ec)
            {
                process();
            }
            });
    }
    if ((pollData.events & POLLOUT) != 0 && !waiter->writePending)
    {
        waiter->writePending = true;
        waiter->descriptor.async_wait(
            boost::asio::posix::stream_descriptor::wait_write,
            [this](const boost::system::error_code& ec) {
            waiter->writePending = false;
            if (!ec)
            {
                process();
            }
            });
    }
    auto timeout = pollData.getRelativeTimeout();
    if (timeout)
    {
        waiter->timer.expires_after(*timeout);
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
        object = sdbus::createObject(connection->raw(), objectPath);
        // Declares the interface even when no property follows, so that an
        // interface without members still goes on the bus.
        object->setInterfaceFlags(interfaceName, sdbus::Flags{});
        for (std::size_t i = 0; i < properties.size(); ++i)
        {
            const auto& [name, value] = properties[i];
            object->registerProperty(interfaceName, name, signatureOf(value),
                                     [this, i](sdbus::PropertyGetReply& reply) {
                std::visit([&reply](const auto& v) { reply << v; },
                           properties[i].second);
            });
        }
        object->finishRegistration();
        object->emitInterfacesAddedSignal({interfaceName});
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
                object->emitPropertiesChangedSignal(interfaceName, {name});
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
            root = sdbus::createObject(this->connection->raw(), "/");
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
            auto raw = this->connection->raw().addMatch(
                rule, [handler = std::move(handler)](sdbus::Message& message) {
                    sdbus::ObjectPath path;
                    std::map<std::string, std::map<std::string, sdbus::Variant>>
                        interfaces;
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
