int limited(int value);
int twice(int value);
bool finishes();
int anyBit(int value);
int kept(int value);
int summed(int value);

int main() {
  // Twice of 0 is 0 however it is computed.
  anyBit(3);
  summed(3);
  if (kept(3) != 3) return 1;
  return limited(10) == 9 && limited(3) == 3 && twice(0) == 0 && finishes() ? 0 : 1;
}
