// crypto11 MODULE: what a Go program does with a token, found by its label, through crypto11.
package main

import (
	"crypto"
	"crypto/ecdsa"
	"crypto/elliptic"
	"crypto/rand"
	"crypto/rsa"
	"crypto/sha256"
	"crypto/x509"
	"log"
	"math/big"
	"os"
	"sync"
	"time"

	"github.com/ThalesIgnite/crypto11"
)

func expect(fact bool, what any) {
	if !fact {
		log.Fatal("not true: ", what)
	}
}

func must(err error) { expect(err == nil, err) }

// A certificate by the key's own signature, which x509 verifies with the public key.
func selfSigned(key crypto.Signer, serial int64) *x509.Certificate {
	template := &x509.Certificate{SerialNumber: big.NewInt(serial), NotAfter: time.Now().Add(time.Hour), IsCA: true,
		BasicConstraintsValid: true}
	der, err := x509.CreateCertificate(rand.Reader, template, template, key.Public(), key)
	must(err)
	certificate, err := x509.ParseCertificate(der)
	must(err)
	must(certificate.CheckSignatureFrom(certificate))
	return certificate
}

func main() {
	log.SetFlags(0)
	token, err := crypto11.Configure(&crypto11.Config{Path: os.Args[1], TokenLabel: "Client token", Pin: os.Getenv("PIN")})
	must(err)
	ids := [][]byte{{0x31}, {0x32}}
	rsaKey, err := token.GenerateRSAKeyPairWithLabel(ids[0], []byte("go rsa"), 2048)
	must(err)
	ecKey, err := token.GenerateECDSAKeyPairWithLabel(ids[1], []byte("go ec"), elliptic.P256())
	must(err)
	for i, key := range []crypto.Signer{rsaKey, ecKey} {
		must(token.ImportCertificateWithLabel(ids[i], ids[i], selfSigned(key, int64(i+1))))
	}
	pairs, err := token.FindAllPairedCertificates()
	must(err)
	expect(len(pairs) >= 2, "the certificates belong to the keys")

	// Eight threads with both keys.
	digest := sha256.Sum256([]byte("document"))
	var threads sync.WaitGroup
	for thread := 0; thread < 8; thread++ {
		threads.Add(1)
		go func() {
			defer threads.Done()
			for round := 0; round < 10; round++ {
				signature, err := rsaKey.Sign(rand.Reader, digest[:], crypto.SHA256)
				must(err)
				must(rsa.VerifyPKCS1v15(rsaKey.Public().(*rsa.PublicKey), crypto.SHA256, digest[:], signature))
				signature, err = ecKey.Sign(rand.Reader, digest[:], crypto.SHA256)
				must(err)
				expect(ecdsa.VerifyASN1(ecKey.Public().(*ecdsa.PublicKey), digest[:], signature), "an ECDSA signature")
			}
		}()
	}
	threads.Wait()
	must(token.DeleteCertificate(nil, nil, big.NewInt(1)))
	for i, id := range ids {
		certificate, err := token.FindCertificate(id, nil, nil)
		expect(err == nil && (certificate == nil) == (i == 0), "only the certificate with this serial number is gone")
	}
	must(rsaKey.Delete())
	keys, err := token.FindKeyPairs(nil, []byte("go rsa"))
	expect(err == nil && len(keys) == 0, "the key is gone")
	must(token.Close())
}
