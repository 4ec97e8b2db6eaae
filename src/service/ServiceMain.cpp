#include "service/ServiceCommands.h"

int main(int argc, char **argv)
{
    return ServiceCommands::run(std::vector<std::string>(argv + 1, argv + argc));
}
