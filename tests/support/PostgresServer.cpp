// Starts and stops the server that the tests of a run share.
#include "tests/support/PostgresCluster.h"

#include <cstdio>
#include <cstring>
#include <exception>

int main(int count, char** arguments)
{
    if (count != 3)
        return 2;
    try
    {
        if (std::strcmp(arguments[1], "start") == 0)
            CPostgresCluster::StartShared(arguments[2]);
        else
            CPostgresCluster::StopShared(arguments[2]);
        return 0;
    }
    catch (const std::exception& e)
    {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
}
