#pragma once

// A service of its own on the system bus, for the stand-ins of the sibling
// services: objects with properties and methods, an object manager at "/",
// signals, and a look at the calls that come in. It serves the bus on the
// calling thread, in serveUntil(); nothing of it is for other threads.

#include "common/types.hpp"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace sdbus
{
class IConnection;
class IObject;
} // namespace sdbus

namespace hwtopod::dbus
{

using Values = std::vector<DbusVariant>;

class Service
{
  public:
    // Connects to the system bus and asks for the name without flags: throws
    // Error when another connection holds it.
    explicit Service(const std::string& name);
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    Service(Service&&) = delete;
    Service& operator=(Service&&) = delete;

    // A property of one of DbusVariant's types. With onSet, clients may set
    // it to a value of the same type, and onSet learns of each; without, it
    // is read-only.
    struct Property
    {
        std::string name;
        DbusVariant value;
        std::function<void(const DbusVariant&)> onSet;
    };

    // A method whose arguments and results are of DbusVariant's types, as
    // the signatures say.
    struct Method
    {
        std::string name;
        std::string inputSignature;
        std::string outputSignature;
        std::function<Values(const Values& arguments)> handler;
    };

    struct Members
    {
        std::vector<Property> properties;
        std::vector<Method> methods;
    };

    // Puts an object with these interfaces on the bus, for the life of the
    // service. No signal is sent.
    void addObject(const std::string& path,
                   const std::map<std::string, Members>& interfaces);

    // InterfacesAdded for an object of addObject, with the named interfaces.
    void emitInterfacesAdded(const std::string& path,
                             const std::vector<std::string>& interfaces);

    void addObjectManager();

    // InterfacesAdded from the object manager for any path, with these
    // values, whether an object is there or not.
    void signalInterfacesAdded(const std::string& path,
                               const InterfaceProperties& interfaces);

    // Calls the handler for each message of the rule, before the service
    // answers it, with its object path and its arguments as the signature
    // reads them.
    void watchCalls(
        const std::string& rule, const std::string& signature,
        std::function<void(const std::string& path, const Values& arguments)>
            handler);

    // Serves the bus until the time has come.
    void serveUntil(std::chrono::steady_clock::time_point deadline);

  private:
    struct Published;

    std::unique_ptr<sdbus::IConnection> bus;
    std::unique_ptr<sdbus::IObject> root;
    std::map<std::string, std::unique_ptr<Published>> objects;
    std::vector<std::shared_ptr<void>> matches;
};

} // namespace hwtopod::dbus
