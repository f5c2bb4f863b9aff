// orvldap_password.h - internal helpers of the password policy unit.
// The character checks themselves (check_numeric_characters, ...) are
// declared in orvldap_utils.h; these are the counts behind them, for tools
// that want to show why a password passes or fails.  Not exported.
#ifndef ORVLDAP_PASSWORD_H
#define ORVLDAP_PASSWORD_H

#ifdef __cplusplus
namespace orv {

// Counts over the bytes of a password up to its terminating zero; a null
// password counts as empty.
int count_numeric_characters(const char* password);     // '0'..'9'
int count_symbol_characters(const char* password);      // not alphanumeric
int count_non_alpha_characters(const char* password);   // not alphabetic
// Highest number of occurrences of one character anywhere in the password.
int count_max_repeated_characters(const char* password);
// Number of distinct characters; 0 when there are fewer than two.
int count_different_characters(const char* password);

}  // namespace orv
#endif

#endif  // ORVLDAP_PASSWORD_H
