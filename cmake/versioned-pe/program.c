/* A program that does nothing: only its version resource matters. */
int main(void) { return 0; }
