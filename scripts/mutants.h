// Stands in front of every source that holds its mutations, each behind a number; see schemata.py.
#pragma once

extern "C" {
// The number of the mutation that is made; 0 when none is.
extern unsigned krucommMutant;
// What the process has come by, one byte per number: 1, or 2 where the mutation cannot compile.
extern unsigned char* krucommReached;
}

namespace krucomm_mutants {

template <class A, class B>
constexpr bool kSame = false;
template <class A>
constexpr bool kSame<A, A> = true;

inline bool run(unsigned number) {
  if (number == 0) return false;
  krucommReached[number] = 1;
  return krucommMutant == number;
}

// For what the compiler may also compute: there the source stays as it is.
constexpr bool either(unsigned number) {
  return __builtin_is_constant_evaluated() ? false : run(number);
}

constexpr void impossible(unsigned number) {
  if (!__builtin_is_constant_evaluated()) krucommReached[number] = 2;
}

constexpr void probe(unsigned number) { either(number); }

}  // namespace krucomm_mutants

// `a < b` is written `a < Less(first, second) < b`: the operator itself groups the operands, so
// that nothing needs to know where they begin and end. An alternative of another type is not made
// here, and its number not reached.
#define KRUCOMM_ALTERNATIVE(number, sign)                                                        \
  if constexpr (!requires { static_cast<A&&>(a) sign static_cast<B&&>(b); }) {                   \
    impossible(number);                                                                          \
  } else {                                                                                       \
    if constexpr (krucomm_mutants::kSame<decltype(static_cast<A&&>(a) sign static_cast<B&&>(b)), \
                                         Result>) {                                              \
      if (either(number)) return static_cast<A&&>(a) sign static_cast<B&&>(b);                   \
    }                                                                                            \
  }

#define KRUCOMM_CHOOSE(Name, sign, other, another)                         \
  template <class A, class B>                                              \
  constexpr decltype(auto) choose##Name(Name by, A&& a, B&& b) {           \
    using Result = decltype(static_cast<A&&>(a) sign static_cast<B&&>(b)); \
    KRUCOMM_ALTERNATIVE(by.first, other)                                   \
    KRUCOMM_ALTERNATIVE(by.second, another)                                \
    return static_cast<A&&>(a) sign static_cast<B&&>(b);                   \
  }

#define KRUCOMM_OPERATOR(Name, sign, other, another)                             \
  namespace krucomm_mutants {                                                    \
  struct Name {                                                                  \
    unsigned first, second;                                                      \
  };                                                                             \
  template <class A>                                                             \
  struct Left##Name {                                                            \
    Name by;                                                                     \
    A&& a;                                                                       \
  };                                                                             \
  KRUCOMM_CHOOSE(Name, sign, other, another)                                     \
  template <class A>                                                             \
  constexpr Left##Name<A> operator sign(A&& a, Name by) {                        \
    return {by, static_cast<A&&>(a)};                                            \
  }                                                                              \
  template <class A, class B>                                                    \
  constexpr decltype(auto) operator sign(Left##Name<A> held, B&& b) {            \
    return choose##Name(held.by, static_cast<A&&>(held.a), static_cast<B&&>(b)); \
  }                                                                              \
  }

// An assignment groups from the right: `a += (Plus += b)`.
#define KRUCOMM_ASSIGNMENT(Name, sign, other)                                    \
  namespace krucomm_mutants {                                                    \
  struct Name {                                                                  \
    unsigned first, second;                                                      \
  };                                                                             \
  template <class B>                                                             \
  struct Right##Name {                                                           \
    Name by;                                                                     \
    B&& b;                                                                       \
  };                                                                             \
  KRUCOMM_CHOOSE(Name, sign, other, other)                                       \
  template <class B>                                                             \
  constexpr Right##Name<B> operator sign(Name by, B&& b) {                       \
    return {by, static_cast<B&&>(b)};                                            \
  }                                                                              \
  template <class A, class B>                                                    \
  constexpr decltype(auto) operator sign(A&& a, Right##Name<B> held) {           \
    return choose##Name(held.by, static_cast<A&&>(a), static_cast<B&&>(held.b)); \
  }                                                                              \
  }

KRUCOMM_OPERATOR(Equal, ==, !=, !=)
KRUCOMM_OPERATOR(Unequal, !=, ==, ==)
KRUCOMM_OPERATOR(Less, <, <=, >=)
KRUCOMM_OPERATOR(LessEqual, <=, <, >)
KRUCOMM_OPERATOR(Greater, >, >=, <=)
KRUCOMM_OPERATOR(GreaterEqual, >=, >, <)
KRUCOMM_OPERATOR(Plus, +, -, -)
KRUCOMM_OPERATOR(Minus, -, +, +)
KRUCOMM_OPERATOR(And, &, |, |)
KRUCOMM_OPERATOR(Or, |, &, &)
KRUCOMM_OPERATOR(ShiftLeft, <<, >>, >>)
KRUCOMM_OPERATOR(ShiftRight, >>, <<, <<)
KRUCOMM_ASSIGNMENT(PlusAssign, +=, -=)
KRUCOMM_ASSIGNMENT(MinusAssign, -=, +=)

#undef KRUCOMM_OPERATOR
#undef KRUCOMM_ASSIGNMENT
#undef KRUCOMM_CHOOSE
#undef KRUCOMM_ALTERNATIVE

// The signs that stand in front are written `Not(number)->*operand`: nothing but a sign in front
// and what follows a name binds closer than ->*.
namespace krucomm_mutants {

struct Not {
  unsigned number;
};
struct Increment {
  unsigned number;
};
struct Decrement {
  unsigned number;
};

template <class A>
constexpr bool operator->*(Not by, A&& a) {
  return either(by.number) ? static_cast<bool>(a) : !static_cast<A&&>(a);
}
template <class A>
constexpr decltype(auto) operator->*(Increment by, A&& a) {
  if constexpr (requires { --a; }) {
    if (either(by.number)) return --a;
  }
  return ++a;
}
template <class A>
constexpr decltype(auto) operator->*(Decrement by, A&& a) {
  if constexpr (requires { ++a; }) {
    if (either(by.number)) return ++a;
  }
  return --a;
}

}  // namespace krucomm_mutants
