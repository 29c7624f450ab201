#include <chrono>
#include <thread>

// Lives for as long as any test may need it, doing nothing; the tests end it.
int main()
{
    std::this_thread::sleep_for(std::chrono::minutes(10));
}
