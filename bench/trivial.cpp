// The cheapest program there is: the benchmark's measure of a bare process start.
int main()
{
    return 0;
}
