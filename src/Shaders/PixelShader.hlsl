// The resizer's pixel shader: one sample of the source per target pixel.
// Filtering (linear when shrinking, nearest when enlarging) and clamping come
// from the sampler state; there is no colour work, so a floating-point source
// is written as it is and saturates in the 8-bit target.

Texture2D tx : register(t0);
SamplerState samLinear : register(s0);

struct PS_INPUT
{
    float4 Pos : SV_POSITION;
    float2 Tex : TEXCOORD;
};

float4 PS(PS_INPUT input) : SV_Target
{
    return tx.Sample(samLinear, input.Tex);
}
