#pragma once

// The daemon's own D-Bus connection, object server, published interfaces and
// signal matches. The binding library stays behind this header: the rest of
// the daemon speaks of these small types only.

#include "common/types.hpp"

#include <boost/asio/io_context.hpp>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <variant>
#include <vector>

namespace sdbus
{
class IConnection;
class IObject;
} // namespace sdbus

namespace hwtopod::dbus
{

// A failure reported by the bus or the binding, with its text; for an error
// of the bus also its name and its own message.
class Error : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
    Error(const std::string& text, std::string name, std::string message) :
        std::runtime_error(text), errorName(std::move(name)),
        errorMessage(std::move(message))
    {}

    const std::string& name() const
    {
        return errorName;
    }
    const std::string& message() const
    {
        return errorMessage;
    }

  private:
    std::string errorName;
    std::string errorMessage;
};

// Values the daemon publishes, with their D-Bus signatures s, b, i, u, t, x,
// d, as, ax and at.
using PropertyValue =
    std::variant<std::string, bool, std::int32_t, std::uint32_t, std::uint64_t,
                 std::int64_t, double, std::vector<std::string>,
                 std::vector<std::int64_t>, std::vector<std::uint64_t>>;

std::string signatureOf(const PropertyValue& value);

bool isValidMemberName(const std::string& name);

// The connection is driven by a Boost.Asio io_context: its file descriptor
// and time-out are waited for on that context. Only one thread at a time may
// use the bus, so every operation goes through run(): on the loop thread it
// runs at once; from another thread it is handed to the loop and the caller
// waits; before the loop runs (start-up) it runs on the calling thread under
// a lock. Once the loop has ended, whether stopped or by an exception,
// nothing would ever run the work handed to it: every caller still waiting
// and every later one gets an Error at once instead of blocking for good.
class Connection : public std::enable_shared_from_this<Connection>
{
  public:
    // Opens the system bus (DBUS_SYSTEM_BUS_ADDRESS is honoured). Throws
    // Error when there is no bus.
    static std::shared_ptr<Connection> openSystemBus(
        boost::asio::io_context& io);

    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    Connection(Connection&&) = delete;
    Connection& operator=(Connection&&) = delete;

    // Asks the bus for a well-known name with the sd-bus request flags
    // (1 replace existing, 2 allow replacement). Throws Error when the name
    // is not ours afterwards.
    void requestName(const std::string& name, std::uint64_t flags);

    // Body of the io thread: processes the bus on the io_context until the
    // context stops. Exceptions of handlers propagate to the caller.
    void runLoop();

    template <typename F>
    auto run(F&& function) -> std::invoke_result_t<F>
    {
        using Result = std::invoke_result_t<F>;
        if (std::this_thread::get_id() == loopThreadId())
        {
            return function();
        }
        auto promise = std::make_shared<std::promise<Result>>();
        auto future = promise->get_future();
        {
            std::unique_lock lock(inlineMutex);
            if (loop == LoopState::notStarted)
            {
                return function();
            }
            if (loop == LoopState::ended)
            {
                throw Error(loopEndedText);
            }
            // The caller waits on the future, so the function outlives the
            // task; a task failed at the loop's end is never run.
            enqueue([promise, &function]() { fulfil(*promise, function); },
                    [promise](std::exception_ptr error) {
                promise->set_exception(std::move(error));
            });
        }
        return future.get();
    }

    // For the destructors of bus objects: as run(), but once the loop has
    // ended the function runs on the calling thread under the lock, since no
    // other thread uses the bus any more.
    void release(const std::function<void()>& function);

    sdbus::IConnection& raw()
    {
        return *bus;
    }

    // Re-evaluates what the loop waits for; called after work that may have
    // queued outgoing messages.
    void flush();

  private:
    explicit Connection(boost::asio::io_context& io,
                        std::unique_ptr<sdbus::IConnection> bus);

    enum class LoopState
    {
        notStarted,
        running,
        ended
    };
    static constexpr auto loopEndedText = "the D-Bus loop has ended";

    template <typename Result, typename F>
    static void fulfil(std::promise<Result>& promise, F& function)
    {
        try
        {
            if constexpr (std::is_void_v<Result>)
            {
                function();
                promise.set_value();
            }
            else
            {
                promise.set_value(function());
            }
        }
        catch (...)
        {
            promise.set_exception(std::current_exception());
        }
    }

    // Hands the task to the loop; `fail` is called instead when the loop
    // ends before the task has started. Called under inlineMutex.
    void enqueue(std::function<void()> task,
                 std::function<void(std::exception_ptr)> fail);
    void endLoop();
    std::thread::id loopThreadId();
    void arm();
    void process();

    struct Waiter;

    boost::asio::io_context& io;
    std::unique_ptr<sdbus::IConnection> bus;
    std::unique_ptr<Waiter> waiter;
    std::mutex inlineMutex;
    LoopState loop = LoopState::notStarted;
    std::thread::id loopThread;
    // Tasks handed to the loop and not started yet, by number.
    std::map<std::uint64_t, std::function<void(std::exception_ptr)>> pending;
    std::uint64_t nextTask = 0;
};

// One published interface on one path. Properties are registered before
// initialize(); after it, values change through setProperty(), which emits
// PropertiesChanged. All properties are read-only for other clients.
class Interface
{
  public:
    Interface(std::shared_ptr<Connection> connection, std::string path,
              std::string name);
    ~Interface();
    Interface(const Interface&) = delete;
    Interface& operator=(const Interface&) = delete;
    Interface(Interface&&) = delete;
    Interface& operator=(Interface&&) = delete;

    // Ignored (false) after initialize(), for a name that is no valid member
    // name, and for a name registered already.
    bool registerProperty(const std::string& name, PropertyValue value);

    // Publishes the interface with the properties registered so far and
    // announces it with InterfacesAdded. A second call does nothing.
    bool initialize();
    // registerProperty of each value in turn, then initialize(), in one turn
    // of the loop thread: a caller on another thread waits for the loop once
    // instead of once a property.
    bool initialize(std::vector<std::pair<std::string, PropertyValue>> values);
    bool isInitialized() const;

    bool hasProperty(const std::string& name) const;

    // True when the value changed; the change is then signalled.
    bool setProperty(const std::string& name, PropertyValue value);

    const std::string& path() const
    {
        return objectPath;
    }
    const std::string& name() const
    {
        return interfaceName;
    }

  private:
    // The bodies of registerProperty and initialize, on the loop thread.
    bool addProperty(const std::string& name, PropertyValue value);
    bool announce();

    std::shared_ptr<Connection> connection;
    std::string objectPath;
    std::string interfaceName;
    // Touched only through connection->run(): one thread at a time.
    std::vector<std::pair<std::string, PropertyValue>> properties;
    std::unique_ptr<sdbus::IObject> object;
    bool initialized = false;
};

// Serves objects on the connection, with an object manager at "/".
class ObjectServer
{
  public:
    explicit ObjectServer(std::shared_ptr<Connection> connection);
    ~ObjectServer();
    ObjectServer(const ObjectServer&) = delete;
    ObjectServer& operator=(const ObjectServer&) = delete;
    ObjectServer(ObjectServer&&) = delete;
    ObjectServer& operator=(ObjectServer&&) = delete;

    std::shared_ptr<Interface> addInterface(const std::string& path,
                                            const std::string& name);

  private:
    std::shared_ptr<Connection> connection;
    std::unique_ptr<sdbus::IObject> root;
};

// A signal match on the connection for InterfacesAdded or PropertiesChanged
// signals. The callback runs on the loop thread with the object path and its
// interfaces: those added, or the one whose properties changed, with the
// changed values.
class Match
{
  public:
    using InterfacesAddedHandler = std::function<void(
        const std::string& path, const InterfaceProperties& interfaces)>;

    Match(std::shared_ptr<Connection> connection, const std::string& rule,
          InterfacesAddedHandler handler);
    ~Match();
    Match(const Match&) = delete;
    Match& operator=(const Match&) = delete;
    Match(Match&&) = delete;
    Match& operator=(Match&&) = delete;

  private:
    std::shared_ptr<Connection> connection;
    std::shared_ptr<void> slot;
};

} // namespace hwtopod::dbus
