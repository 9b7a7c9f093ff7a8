// bench/null.cpp: a program that does nothing, linked with the same
// libraries as vorex-zmailer. What one router-stage process costs before the
// filter does any work (loading and relocating the libraries, their static
// initialisers) is the floor scripts/bench measures the filter against.
int main()
{
    return 0;
}
