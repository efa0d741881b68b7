#include "tool/token_listing.h"

#include <iostream>

#include "devlib/device_constants.h"
#include "softtoken/certificates.h"
#include "softtoken/token_folders.h"
#include "tool/json.h"
#include "tool/text.h"

namespace tool {
namespace {

using softtoken::ByteView;
using softtoken::Failure;
using softtoken::TokenState;
using softtoken::TokenSummary;

std::string typeName(const TavrinKeyPair& pair) {
  const tavrin::KeyTypeInfo* type = tavrin::findKeyType(pair.keyType);
  return type ? type->name : "unknown type";
}

TokenSummary summaryOf(const std::string& name) {
  softtoken::Token token(softtoken::folderOfToken(name));
  return {name, softtoken::isPlugged(name), token.state(), token.tries(), {}};
}

std::string objectsOf(const TokenState& state) {
  return std::to_string(state.objectCount()) + " of " + std::to_string(state.capacity);
}

std::string subjectOf(const TavrinCertificate& certificate) {
  try {
    return softtoken::parseCertificate(ByteView(certificate.certificate).first(certificate.certificateLength))
        .subjectText;
  } catch (const Failure&) {
    return "(unreadable)";
  }
}

Json::Object jsonOf(const TokenSummary& token) {
  Json::Object json{{"name", token.name}, {"plugged", token.plugged}, {"problem", token.problem}};
  if (!token.state) return json;
  const TokenState& state = *token.state;
  const Json::Object more{{"serial", state.serial},
                          {"label", state.label},
                          {"firmware", state.firmware},
                          {"triesLeft", token.tries.user},
                          {"securityOfficerTriesLeft", token.tries.securityOfficer},
                          {"objects", state.objectCount()},
                          {"capacity", state.capacity}};
  json.insert(json.end(), more.begin(), more.end());
  return json;
}

Json jsonOfObjects(const TokenSummary& token) {
  Json::Array keyPairs;
  for (const TavrinKeyPair& pair : token.state->keyPairs) {
    keyPairs.push_back(Json::Object{{"type", typeName(pair)},
                                    {"label", softtoken::textIn(pair.label)},
                                    {"id", hexOf(ByteView(pair.keyId).first(pair.keyIdLength))}});
  }
  Json::Array certificates;
  for (const TavrinCertificate& certificate : token.state->certificates) {
    certificates.push_back(Json::Object{{"subject", subjectOf(certificate)},
                                        {"label", softtoken::textIn(certificate.label)},
                                        {"id", hexOf(ByteView(certificate.certId).first(certificate.certIdLength))}});
  }
  Json::Object json = jsonOf(token);
  json.push_back({"folder", softtoken::textOf(softtoken::folderOfToken(token.name))});
  json.push_back({"keyPairs", keyPairs});
  json.push_back({"certificates", certificates});
  return json;
}

std::vector<std::string> rowOf(const TokenSummary& token) {
  const std::string plugged = token.plugged ? "yes" : "no";
  if (!token.state) return {token.name, "-", "unreadable: " + token.problem, plugged, "-", "-"};
  return {token.name,
          token.state->serial,
          token.state->label,
          plugged,
          token.tries.user == 0 ? "locked" : std::to_string(token.tries.user),
          objectsOf(*token.state)};
}

}  // namespace

void printTokens(bool json) {
  const std::vector<TokenSummary> tokens = softtoken::allTokens();
  if (json) {
    Json::Array list;
    for (const TokenSummary& token : tokens) list.push_back(jsonOf(token));
    std::cout << Json(list).text() << '\n';
    return;
  }
  if (tokens.empty()) {
    std::cout << "There are no tokens in " << printable(softtoken::textOf(softtoken::tokenRoot())) << '\n';
    return;
  }
  std::vector<std::vector<std::string>> rows{{"NAME", "SERIAL", "LABEL", "PLUGGED", "TRIES LEFT", "OBJECTS"}};
  for (const TokenSummary& token : tokens) rows.push_back(rowOf(token));
  printTable(rows);
}

void printToken(const std::string& name, bool json) {
  const TokenSummary token = summaryOf(name);
  if (json) {
    std::cout << jsonOfObjects(token).text() << '\n';
    return;
  }
  const TokenState& state = *token.state;
  printTable({{"name", token.name},
              {"folder", softtoken::textOf(softtoken::folderOfToken(token.name))},
              {"serial", state.serial},
              {"label", state.label},
              {"firmware", state.firmware},
              {"plugged", token.plugged ? "yes" : "no"},
              {"user tries left", std::to_string(token.tries.user)},
              {"security officer tries left", std::to_string(token.tries.securityOfficer)},
              {"objects", objectsOf(state)}});
  std::vector<std::vector<std::string>> rows;
  for (const TavrinKeyPair& pair : state.keyPairs) {
    rows.push_back({"key pair " + std::to_string(pair.id), typeName(pair), softtoken::textIn(pair.label),
                    hexOf(ByteView(pair.keyId).first(pair.keyIdLength))});
  }
  for (const TavrinCertificate& certificate : state.certificates) {
    rows.push_back({"certificate " + std::to_string(certificate.id), subjectOf(certificate),
                    softtoken::textIn(certificate.label),
                    hexOf(ByteView(certificate.certId).first(certificate.certIdLength))});
  }
  if (!rows.empty()) printTable(rows);
}

std::string serialOf(const std::string& name) { return summaryOf(name).state->serial; }

}  // namespace tool
