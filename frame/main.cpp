// frame/main.cpp: placeholder until the driver lands.
#include <cstdio>
int main()
{
    return 0;
}
