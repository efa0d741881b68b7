#include "softtoken/ec.h"

#include "softtoken/der.h"

namespace softtoken {
namespace {

constexpr std::uint8_t uncompressed = 0x04;

using Point = std::unique_ptr<gcry_mpi_point, ReleaseWith<gcry_mpi_point_release>>;
using CurveContext = std::unique_ptr<gcry_context, ReleaseWith<gcry_ctx_release>>;

bool looksLikePoint(const Curve& curve, ByteView point) {
  return point.size() == 1 + 2 * curve.length && point[0] == uncompressed;
}

Sexp digestExpression(const Curve& curve, ByteView input) {
  const Mpi number = mpiOf(input.first(std::min(input.size(), curve.length)));
  const auto surplus = static_cast<unsigned>(curve.length * 8) - curve.bits;
  if (input.size() >= curve.length && surplus > 0) gcry_mpi_rshift(number.get(), number.get(), surplus);
  return makeSexp("(data(flags raw)(value %m))", number.get());
}

CurveContext openCurve(const Curve& curve) {
  readyCryptoLibrary();
  gcry_ctx_t opened = nullptr;
  check(gcry_mpi_ec_new(&opened, nullptr, curve.name), "opening a curve");
  return CurveContext(opened);
}

// Throws badArgument for a point that is not on the curve.
Point decodePoint(const Curve& curve, ByteView bytes, gcry_ctx_t context) {
  require(looksLikePoint(curve, bytes), "no public point of this curve");
  const Mpi x = mpiOf(bytes.subspan(1, curve.length));
  const Mpi y = mpiOf(bytes.subspan(1 + curve.length));
  Point point(gcry_mpi_point_set(nullptr, x.get(), y.get(), GCRYMPI_CONST_ONE));
  require(gcry_mpi_ec_curve_point(point.get(), context) != 0, "the point is not on the curve");
  return point;
}

}  // namespace

EcKey generateEcKey(const Curve& curve) {
  const Sexp parameters = makeSexp("(genkey(ecc(curve %s)))", curve.name);
  gcry_sexp_t generated = nullptr;
  check(gcry_pk_genkey(&generated, parameters.get()), "generating an EC key");
  const Sexp owner(generated);
  const Sexp key(gcry_sexp_find_token(generated, "private-key", 0));
  return {fixedLength(numberIn(key.get(), "q").get(), 1 + 2 * curve.length),
          fixedLength<SecretBytes>(numberIn(key.get(), "d").get(), curve.length)};
}

Bytes signEcdsa(const Curve& curve, const EcKey& key, ByteView input) {
  const Sexp data = digestExpression(curve, input);
  const Mpi scalar = secretMpiOf(key.scalar);
  const Sexp privateKey = makeSexp("(private-key(ecc(curve %s)(q %b)(d %m)))", curve.name,
                                   static_cast<int>(key.point.size()), key.point.data(), scalar.get());
  gcry_sexp_t made = nullptr;
  check(gcry_pk_sign(&made, data.get(), privateKey.get()), "signing");
  const Sexp owner(made);
  Bytes signature = fixedLength(numberIn(made, "r").get(), curve.length);
  const Bytes second = fixedLength(numberIn(made, "s").get(), curve.length);
  signature.insert(signature.end(), second.begin(), second.end());
  return signature;
}

void verifyEcdsa(const Curve& curve, ByteView point, ByteView input, ByteView signature) {
  decodePoint(curve, point, openCurve(curve).get());
  if (signature.size() != 2 * curve.length) throw Failure(Status::badSignature, "the signature has a wrong length");
  const Sexp data = digestExpression(curve, input);
  const Sexp publicKey =
      makeSexp("(public-key(ecc(curve %s)(q %b)))", curve.name, static_cast<int>(point.size()), point.data());
  const Mpi r = mpiOf(signature.first(curve.length));
  const Mpi s = mpiOf(signature.subspan(curve.length));
  const Sexp expression = makeSexp("(sig-val(ecdsa(r %m)(s %m)))", r.get(), s.get());
  if (gcry_pk_verify(expression.get(), data.get(), publicKey.get()))
    throw Failure(Status::badSignature, "the signature is not valid");
}

SecretBytes deriveEcdh(const Curve& curve, ByteView scalar, ByteView peerPoint) {
  ByteView rest = peerPoint;
  if (!looksLikePoint(curve, peerPoint)) {
    const auto wrapped = takeElement(rest, tag::octetString);
    require(wrapped && rest.empty() && looksLikePoint(curve, wrapped->content), "no point of this curve");
    peerPoint = wrapped->content;
  }
  const CurveContext context = openCurve(curve);
  const Point peer = decodePoint(curve, peerPoint, context.get());
  const Point shared(gcry_mpi_point_new(0));
  const Mpi factor = secretMpiOf(scalar);
  gcry_mpi_ec_mul(shared.get(), factor.get(), peer.get(), context.get());
  const Mpi x = newSecretMpi();
  require(gcry_mpi_ec_get_affine(x.get(), nullptr, shared.get(), context.get()) == 0,
          "the shared point is at infinity");
  return fixedLength<SecretBytes>(x.get(), curve.length);
}

}  // namespace softtoken
