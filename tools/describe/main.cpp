#include "DescribeCommand.h"

#include <iostream>

int main(int argc, char** argv)
{
    return Lodestone::DescribeCommand(std::cout, std::cerr).run({argv + 1, argv + argc});
}
