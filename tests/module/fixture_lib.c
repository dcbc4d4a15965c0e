int ovtfoo_answer(void) { return 42; }
int ovtfoo_twice(int x) { return 2 * x; }
