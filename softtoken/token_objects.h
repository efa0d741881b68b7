// Adding, finding and removing key pairs and certificates in a token's state.
#pragma once

#include "softtoken/token_state.h"

namespace softtoken {

// The index of the record with this recordId of 16 bytes. Both throw notFound.
std::size_t indexOfKeyPair(const TokenState& state, const std::uint8_t* recordId);
std::size_t indexOfCertificate(const TokenState& state, const std::uint8_t* recordId);

// Throws full when the token has as many objects as it can hold.
void requireRoom(const TokenState& state);

// Sets the number of the record, which has its recordId already, and adds it. Throws full.
void addKeyPair(TokenState& state, TavrinKeyPair& pair, Bytes privateKey);
// Adds a certificate. Throws full. If the same bytes are stored already, that record is kept and gets the new label and
// ID, unless they are empty. `certificate` receives the stored record.
void addCertificate(TokenState& state, TavrinCertificate& certificate);

void removeKeyPair(TokenState& state, const std::uint8_t* recordId);
void removeCertificate(TokenState& state, const std::uint8_t* recordId);

// Cuts the text to fit the field and its NUL, not within a UTF-8 character.
void setLabel(std::span<char> field, std::string_view text);

}  // namespace softtoken
