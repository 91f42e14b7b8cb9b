// Does with passwords what leaks them most easily, and writes down every message: tests/leaks/run looks at what comes
// out.
//
//     leaks DATABASE USER PASSWORD [shown]
//
// With "shown" the messages are not masked: what the looking must find.

#include <dal/DatabaseCommandExecutor.h>
#include <dal/LocationService.h>
#include <dal/PresenceService.h>
#include <util/MaskSecrets.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

bool masks = true;

void write(const std::string& message)
{
    std::printf("%s\n", masks ? oryx::maskSecrets(message).c_str() : message.c_str());
}

/// Connections that fail, or connect with something else than was meant.
void connectWrongly(const std::string& database, const std::string& user, const std::string& password)
{
    for (const std::string& uri : {"postgresql://" + user + ":" + password + "@127.0.0.1/" + database,
                                   "postgresql://" + user + ":" + password + " x@127.0.0.1/" + database,
                                   "postgresql://" + user + ":x/" + password + "@127.0.0.1:1/no_such_database",
                                   "postgres:/" + user + ":" + password + "@127.0.0.1", database}) {
        for (const std::string& given :
             {password, "wrong " + password, "'" + password, "x\\ " + password + " y", "x port=" + password}) {
            oryx::LocationService location;
            write("connect to " + uri);
            write(location.connect(uri.c_str(), user.c_str(), given.c_str()).getErrorMessage());
        }
    }
}

oryx::SubscriberRecord subscriber(int key, const std::string& name, const std::string& password)
{
    oryx::SubscriberRecord record;
    record.setId(key);
    record.setUserId(name.c_str());
    record.setPassword(password.c_str());
    return record;
}

/// Statements with the password in them, in each way that the library makes them, and a program.
void store(oryx::DatabaseCommandExecutor& executor, const std::string& password)
{
    const auto tell = [&](int outcome) { write(std::to_string(outcome) + " " + executor.getErrorMessage()); };
    tell(executor.addSubscriber(subscriber(9101, "dave", password)));
    tell(executor.addSubscriber(subscriber(9101, "dave", password)));
    tell(executor.addSubscriber(subscriber(9102, "o'neill", password)));
    tell(executor.addSubscriber(subscriber(9102, "x", password + "\xff")));
    tell(executor.changeSubscriberPassword(9101, password.c_str()));
    for (const char* front : {"", "'", "x' OR '", "x'||", "x\\' ", "x\n' ", "\xff"}) {
        for (const char* back : {"", "'", "()||'", "--", "','"}) {
            tell(executor.changeSubscriberPassword(9101, (front + password + back).c_str()));
            tell(executor.addSubscriber(subscriber(9103, "x", front + password + back)));
        }
    }
    for (const std::string& statement :
         {"INSERT INTO subscriber (sid, s_password) VALUES (-1, '" + password + "')",
          "INSERT INTO subscriber VALUES (9104, 'x', 'x', 1, 'x', 'x', '" + password + "', 'no boolean')",
          std::string("UPDATE subscriber SET sid = -1 WHERE sid = 9101"),
          "UPDATE subscriber SET oid = 'x', s_password = '" + password + "' WHERE sid = 9101",
          "SELECT sid FROM subscriber WHERE s_password = '" + password + "' AND no_such_column = 1",
          "SELECT sid FROM subscriber WHERE s_password LIKE '" + password + "' AND",
          "CREATE ROLE oryx_owner PASSWORD '" + password + "'"}) {
        write(executor.execute(statement).getErrorMessage());
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4) {
        return EXIT_FAILURE;
    }
    const std::string database = argv[1];
    const std::string user = argv[2];
    const std::string password = argv[3];
    masks = argc == 4;
    oryx::DatabaseCommandExecutor executor;
    if (!executor.connect(database.c_str(), user.c_str(), password.c_str())) {
        write(executor.getErrorMessage());
        return EXIT_FAILURE;
    }
    connectWrongly(database, user, password);
    store(executor, password);
    oryx::LocationService location;
    oryx::PresenceService presence;
    location.connect(database.c_str(), user.c_str(), password.c_str());
    presence.connect(database.c_str(), user.c_str(), password.c_str());
    oryx::SubscriberRecord record;
    write(location.lookupSubscriber("alice", "oryx.example", record).getErrorMessage());
    write(presence.lookupSubscriber("alice", "oryx.example", record).getErrorMessage());
    return record.password() == password ? EXIT_SUCCESS : EXIT_FAILURE;
}
