// Shows what the libpq of a build is and what it makes of a connection: its version, its TLS
// library, and the outcome of connecting to the given address and running the given query.
// A check by hand, also of the Windows build under Wine.
// Usage: libpq_probe [CONNINFO [QUERY]]
#include <libpq-fe.h>

#include <cstdio>

int main(int argc, char** argv) {
  const char* conninfo =
      argc > 1 ? argv[1] : "postgresql://nobody@127.0.0.1:1/x?connect_timeout=2&sslmode=require";
  const char* query = argc > 2 ? argv[2] : "SELECT 1";

  std::printf("PQlibVersion: %d\n", PQlibVersion());
  const char* library = PQsslAttribute(nullptr, "library");
  std::printf("TLS library: %s\n", library ? library : "(none)");

  PGconn* connection = PQconnectdb(conninfo);
  if (PQstatus(connection) != CONNECTION_OK) {
    std::printf("connection failed: %s", PQerrorMessage(connection));
    PQfinish(connection);
    return 1;
  }
  const char* protocol = PQsslAttribute(connection, "protocol");
  std::printf("connected to server %d over %s\n", PQserverVersion(connection),
              protocol ? protocol : "no TLS");

  PGresult* result = PQexec(connection, query);
  const bool rows = PQresultStatus(result) == PGRES_TUPLES_OK;
  if (rows && PQntuples(result) > 0 && PQnfields(result) > 0) {
    std::printf("%s: %s\n", query, PQgetvalue(result, 0, 0));
  } else if (!rows) {
    std::printf("%s failed: %s", query, PQresultErrorMessage(result));
  }
  PQclear(result);
  PQfinish(connection);
  return rows ? 0 : 1;
}
