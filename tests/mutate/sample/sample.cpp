int limited(int value) {
  if (value > 9) return 9;
  return value;
}

int twice(int value) { return value + value; }

bool finishes() {
  bool done = false;
  while (!done) done = true;
  return done;
}

int neverCalled() { return 5; }

int anyBit(int value) { return (value & 1) | 4; }

int kept(int value) {
  int result = 0;
  result = value;
  return result;
}

int summed(int value) {
  int result = 0;
  return value + result + result;
}
