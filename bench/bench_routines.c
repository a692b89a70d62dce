// The routine that the request benchmarks call.

int five_ints(int a, int b, int c, int d, int e) {
    return a + b + c + d + e;
}
