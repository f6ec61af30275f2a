// SPDX-License-Identifier: GPL-2.0
// Reading numbers from text as the kernel's sscanf does, where it would be asked for one only.
#ifndef WT_SCAN_H
#define WT_SCAN_H

#include "../kernel-abstractions/types.h"

// White space of the C locale.
constexpr bool is_space(char c)
{
	return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr bool is_digit(char c)
{
	return c >= '0' && c <= '9';
}

// Decimal digits at the head of the text, which is moved behind them. False without one. A number
// that is too large keeps its low bits.
template <typename Number> constexpr bool scan_digits(const char **text, Number *number)
{
	if (!is_digit(**text))
		return false;
	for (*number = 0; is_digit(**text); ++*text)
		*number = *number * 10 + static_cast<Number>(**text - '0');
	return true;
}

// The same after white space: "%u" or "%llu".
template <typename Number> constexpr bool scan_unsigned(const char **text, Number *number)
{
	while (is_space(**text))
		++*text;
	return scan_digits(text, number);
}

// The same with a sign before the digits: "%d".
constexpr bool scan_signed(const char **text, int *number)
{
	while (is_space(**text))
		++*text;
	const bool negative = **text == '-';
	if (negative)
		++*text;
	unsigned int value = 0;
	if (!scan_digits(text, &value))
		return false;
	*number = static_cast<int>(negative ? 0 - value : value);
	return true;
}

#endif
