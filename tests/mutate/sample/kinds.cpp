// Every kind of place that can be broken. answer() tells each mutation from the others' absence.
constexpr int kLimit = 3;
constexpr char kLetters[] = "\0abcX";
enum Size { kSmall = 1 };

struct Text {
  int length = 0;
  Text& operator+=(int more) {
    length += more;
    return *this;
  }
};

unsigned mixed(unsigned sum, int value) { return sum * 31U + static_cast<unsigned>(value); }

constexpr int doubled(int value) { return value + value; }

int compared(int a, int b) {
  int found = 0;
  if (a < b) found += 1;
  if (a <= b) found += 2;
  if (a > b) found += 4;
  if (a >= b) found += 8;
  if (a == b) found += 16;
  if (a != b) found += 32;
  return found;
}

int computed(int a, int b) {
  int sum = a + b * 2 - 1;
  sum -= a - b;
  return (sum << 2) + ((sum & b) | (a >> 1));
}

int joined(bool a, bool b, bool c) {
  if (a && b) return 1;
  if (b || (c && !a)) return 2;
  return !c ? 3 : 4;
}

// There is a NUL in front of the text as well, for whoever goes the wrong way.
int lettersFrom(const char* text) {
  int count = 0;
  for (; *text != '\0'; ++text) {
    if (*text == 'c') continue;
    ++count;
  }
  return count;
}

int chosen(int value) {
  switch (value) {
    default:
      break;
    case 1: {
      const char* letters =
          "\0one"
          "fourX";
      return lettersFrom(&letters[1]);
    }
    case 2: {
      Text text;
      text += 5;
      return text.length;
    }
  }
  int left = 10;
  int steps = 0;
  while (left > kLimit) {
    left -= 1;
    steps++;
  }
  return left * steps + doubled(kSmall) + lettersFrom(&kLetters[1]);
}

unsigned answer() {
  unsigned sum = 0;
  for (int a = -2; a < 3; ++a) {
    for (int b = -2; b < 3; ++b) {
      sum = mixed(sum, compared(a, b));
      sum = mixed(sum, computed(a, b));
      sum = mixed(sum, joined(a > 0, b > 0, a != b));
    }
    sum = mixed(sum, chosen(a));
  }
  return sum;
}
