extern "C" int nothing();

int nothing() {
    return 0;
}
