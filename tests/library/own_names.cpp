// Names of the program that the library uses too.
int fd = 42;
int logging_mode = 43;
double getNow() { return 44; }
int qsprintf(const char*) { return 45; }

int ownNames() { return fd + logging_mode + static_cast<int>(getNow()) + qsprintf(""); }
