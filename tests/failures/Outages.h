#pragma once

#include "failures/Operations.h"
#include "support/Proxy.h"
#include "support/Server.h"
#include "support/ServerControl.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace failures {

/// The server that is broken, and what is needed to break and to mend it.
struct Scene {
private:
    std::unique_ptr<server::Session> m_session; // `control` asks it as it is made

public:
    Scene();

    /// A superuser's session, made anew where the server has ended it.
    server::Session& session();
    void sql(const std::string& statements) { session().run(statements); }
    /// Waits until a query of the superuser's gives that value; throws if it never does.
    void await(const std::string& query, const std::string& value);

    /// Wait until the server says why it takes nobody in, and until it does.
    void awaitRefusal() const;
    void awaitReadiness() const;

    std::unique_ptr<server::Session> holder; ///< Another session, which is in the way.
    std::unique_ptr<server::Stopped> stopped;
    server::Proxy proxy;
    server::ServerControl control;
};

/// An outage. The services connect before it, unless said otherwise, and each operation has a service of its own.
struct Outage {
    using Hook = std::function<void()>;

    std::string name; ///< Of its table in the document.
    Hook begin = [] {};
    Hook end = [] {};
    std::vector<Operation> operations = oneOfEachKind();
    int calls = 2;                             ///< Of each operation, one after another.
    bool proxied = false;                      ///< The services connect through the proxy.
    bool prepares = false;                     ///< Each operation has been called before.
    bool connectsMeanwhile = false;            ///< The services connect when it has begun.
    bool plainWaits = false;                   ///< What plain statements are answered is not waited for.
    Hook before = nullptr;                     ///< Before each call; the operations then come one after another.
    std::chrono::milliseconds deadline{20000}; ///< Of bound statements.
    std::string settings = "";                 ///< Of the roles, while the services connect: "name = value; ...".
    std::string database = "oryx";
    std::string password = "only-for-the-tests";
};

std::vector<Outage> outages(Scene& scene);
/// In these no new connection is to be had, which is all that they differ in from the first of the others.
std::vector<Outage> refusals(Scene& scene);
/// What misleads is asked in these; a column each.
std::vector<Outage> misleadingOutages(Scene& scene);

/// What one way of sending is answered, an entry for each operation.
using Answers = std::vector<std::string>;
struct Provoked {
    Answers plain;
    Answers bound;
};
/// Has the outage happen, asks, and mends.
Provoked provoke(Scene& scene, const Outage& outage);

} // namespace failures
